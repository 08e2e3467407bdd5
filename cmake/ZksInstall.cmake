# What an installation holds besides the programs: the two shared libraries and the toolbox, the headers of what they
# offer, a CMake package (find_package(zks)), and the schemas that clients in other languages are generated from.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zks)
set(header_dir ${CMAKE_INSTALL_INCLUDEDIR}/zks)

set(libraries zksplatform cvparallelspftransport toolbox)
foreach(library IN LISTS libraries)
  target_include_directories(${library} INTERFACE $<INSTALL_INTERFACE:${header_dir}>)
endforeach()
install(TARGETS ${libraries} EXPORT zksTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}/zks)
set_target_properties(zks zksd cvparallelspftransport PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR};$ORIGIN")

# Not those of tests, of a module's inside, and of what the library does not export: its host classes (which a host
# finds by their names) and the functions behind its builtins.
install(DIRECTORY platform transport toolbox DESTINATION ${header_dir}
  FILES_MATCHING PATTERN "*.h"
  PATTERN "internal" EXCLUDE
  PATTERN "testing" EXCLUDE
  PATTERN "*Test.h" EXCLUDE
  PATTERN "transport/cos" EXCLUDE
  PATTERN "transport/protobuf/AnyEncoderImpl.h" EXCLUDE
  PATTERN "transport/protobuf/detail.h" EXCLUDE
  PATTERN "transport/protobuf/messageNbytes.h" EXCLUDE)
foreach(module IN ITEMS errors zksmessages)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/generated/platform/${module} DESTINATION ${header_dir}/platform
    FILES_MATCHING PATTERN "*.h")
endforeach()

# In one folder, so that generated code has plain names: a schema that imports another does so without its folder.
install(FILES platform/spf/grpc/transport.proto platform/zksmessages/zksmessages.proto ${ZKS_FLAT_SCHEMAS}/jobs.proto
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zks)

install(EXPORT zksTargets NAMESPACE zks:: DESTINATION ${package_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/zksConfig.cmake.in ${PROJECT_BINARY_DIR}/zksConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zksConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zksConfig.cmake ${PROJECT_BINARY_DIR}/zksConfigVersion.cmake
  DESTINATION ${package_dir})
