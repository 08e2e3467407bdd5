# What an installation holds besides the programs: the two shared libraries, their public headers, a CMake package
# (find_package(zks)), and the schemas that clients in other languages are generated from.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zks)
set(header_dir ${CMAKE_INSTALL_INCLUDEDIR}/zks)

foreach(library IN ITEMS zksplatform cvparallelspftransport)
  target_include_directories(${library} INTERFACE $<INSTALL_INTERFACE:${header_dir}>)
endforeach()
install(TARGETS zksplatform cvparallelspftransport EXPORT zksTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
set_target_properties(zks zksd cvparallelspftransport PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR};$ORIGIN")

install(DIRECTORY platform transport DESTINATION ${header_dir}
  FILES_MATCHING PATTERN "*.h"
  PATTERN "internal" EXCLUDE
  PATTERN "testing" EXCLUDE)
install(DIRECTORY ${PROJECT_BINARY_DIR}/generated/platform DESTINATION ${header_dir} FILES_MATCHING PATTERN "*.h")

# In one folder, so that generated code has plain names.
install(FILES platform/spf/grpc/transport.proto platform/zksmessages/zksmessages.proto
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zks)

install(EXPORT zksTargets NAMESPACE zks:: DESTINATION ${package_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/zksConfig.cmake.in ${PROJECT_BINARY_DIR}/zksConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zksConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zksConfig.cmake ${PROJECT_BINARY_DIR}/zksConfigVersion.cmake
  DESTINATION ${package_dir})
