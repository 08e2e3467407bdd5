# Compiler settings that every target of this tree shares, and the switches that the presets set.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(THREADS_PREFER_PTHREAD_FLAG ON)

# For those who change the tree and for CI. Another compiler's new warning is no error for those who only build.
option(ZKS_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" OFF)
option(ZKS_BUILD_TESTS "Build the tests" ON)
option(ZKS_BUILD_BENCHMARKS "Build the benchmarks" ON)
set(ZKS_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them (for example address,undefined)")
set(ZKS_HOST_DIR "" CACHE PATH "A host vendor's folder, whose modules replace the bundled ones (docs/host-vendors.md)")

option(ZKS_COVERAGE "Count which lines and branches run (gcc)" OFF)
option(ZKS_FUZZ "Have libFuzzer drive the fuzz targets (clang only)" OFF)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

if(ZKS_SANITIZE)
  add_compile_options(-fsanitize=${ZKS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ZKS_SANITIZE})
endif()

if(ZKS_COVERAGE)
  # Several processes add to the same counters, also those that a signal ends.
  add_compile_options(--coverage -fprofile-update=atomic -fprofile-abs-path)
  add_link_options(--coverage)
endif()

if(ZKS_FUZZ)
  # The code under test has to report which branches it took.
  add_compile_options(-fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=fuzzer-no-link)
endif()

# zks_warnings: linked by every target whose sources are written here (not by generated code).
add_library(zks_warnings INTERFACE)
target_compile_options(zks_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wunused
  -Wnull-dereference -Wformat=2 $<$<BOOL:${ZKS_WARNINGS_AS_ERRORS}>:-Werror>)
if(CMAKE_UNITY_BUILD)
  # GCC takes a unit's files for headers, whose anonymous namespaces must not reach a type that others see.
  target_compile_options(zks_warnings INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
endif()
# clang checks which lock guards what: platform/threads/annotations.h.
target_compile_options(zks_warnings INTERFACE $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)

# zks_trusted_headers: linked, after all else, by targets into which GCC inlines headers of others that it suspects for no
# reason: gRPC's, pybind11's.
add_library(zks_trusted_headers INTERFACE)
target_compile_options(zks_trusted_headers INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-null-dereference>)
if(ZKS_SANITIZE MATCHES "thread|address")
  # GCC reports its own instrumentation here.
  target_compile_options(zks_warnings INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-null-dereference -Wno-tsan -Wno-maybe-uninitialized>)
endif()
