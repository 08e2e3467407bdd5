# What the tree stands on. Every package here is installed by scripts/setup (Debian), and none is fetched by CMake.
find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS log)
# Protobuf since 22 has a CMake package of its own, which brings the Abseil that it needs; before, CMake's module finds it.
find_package(Protobuf CONFIG QUIET)
if(NOT Protobuf_FOUND)
  find_package(Protobuf REQUIRED)
endif()
find_package(OpenSSL 3.0 REQUIRED)
find_package(gRPC CONFIG REQUIRED)  # finds its own re2 through pkg-config
find_package(CLI11 CONFIG REQUIRED)
if(NOT DEFINED Python3_EXECUTABLE AND EXISTS /usr/bin/python3)
  set(Python3_EXECUTABLE /usr/bin/python3)  # the system's own, before any that a user's PATH brings
endif()
find_package(Python3 3.11 REQUIRED COMPONENTS Interpreter)
find_library(ZKS_LIBCBOR cbor REQUIRED)
find_path(ZKS_LIBCBOR_INCLUDE cbor.h REQUIRED)
if(ZKS_BUILD_TESTS)
  find_package(GTest CONFIG REQUIRED)
  find_package(rapidcheck CONFIG REQUIRED)
  find_path(ZKS_GRPC_PROTO grpc/health/v1/health.proto PATHS /usr/share/grpc-proto REQUIRED)
endif()
if(ZKS_BUILD_BENCHMARKS)
  find_package(benchmark CONFIG REQUIRED)
endif()

add_library(zks_libcbor INTERFACE)
target_link_libraries(zks_libcbor INTERFACE ${ZKS_LIBCBOR})
target_include_directories(zks_libcbor SYSTEM INTERFACE ${ZKS_LIBCBOR_INCLUDE})
