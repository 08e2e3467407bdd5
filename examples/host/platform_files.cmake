# A second implementation of platform/files, built in the place of the bundled one: docs/host-vendors.md.
set(SOURCES ${CMAKE_CURRENT_LIST_DIR}/nativePath.cpp)
set(LINKS platform_errors)
