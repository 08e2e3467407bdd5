# The few shapes of target that this tree has.

# All generated sources: what a linter needs before it can read the others.
add_custom_target(generated)
function(zks_is_generated name) # FILE...
  add_custom_target(${name}_generated DEPENDS ${ARGN})
  add_dependencies(generated ${name}_generated)
endfunction()

# zks_add_module(NAME SOURCES file... [LINKS target...] [PRIVATE_LINKS target...])
# A static library of position-independent code. Shared libraries are made of modules; unit tests link modules directly.
# A file NAME.cmake in ZKS_HOST_DIR replaces the three lists: it sets SOURCES, LINKS and PRIVATE_LINKS.
function(zks_add_module name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINKS;PRIVATE_LINKS")
  if(ZKS_HOST_DIR AND EXISTS "${ZKS_HOST_DIR}/${name}.cmake")
    include("${ZKS_HOST_DIR}/${name}.cmake")
    foreach(list IN ITEMS SOURCES LINKS PRIVATE_LINKS)
      set(arg_${list} ${${list}})
    endforeach()
  endif()
  add_library(${name} STATIC ${arg_SOURCES})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(${name} PUBLIC ${arg_LINKS} PRIVATE ${arg_PRIVATE_LINKS} $<BUILD_INTERFACE:zks_warnings>)
endfunction()

# The tests in which several threads meet: what ThreadSanitizer is given.
add_custom_target(thread_tests)

# zks_add_test(NAME SOURCES file... [LINKS target...] [LABELS label...] [TIMEOUT seconds] [ENVIRONMENT VAR=value...]
#   [EACH_CASE_ALONE])
# A GoogleTest program whose suites ctest lists one by one (cmake/ZksDiscoverSuites.cmake). Put it beside what it tests.
# Labels: "threads" where several threads meet, "large" for what wants gigabytes and minutes. The timeout is a suite's.
function(zks_add_test name)
  if(NOT ZKS_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 arg "EACH_CASE_ALONE" "TIMEOUT" "SOURCES;LINKS;LABELS;ENVIRONMENT")
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 600)
  endif()
  string(REGEX REPLACE "(_allocation|_threads|_large)?_test$" "" module ${name})
  if(ZKS_HOST_DIR AND EXISTS "${ZKS_HOST_DIR}/${module}.cmake")
    list(FILTER arg_SOURCES EXCLUDE REGEX "^internal/")  # tests of the inside of the bundled module
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LINKS} GTest::gmock GTest::gtest_main zks_warnings)
  # Compiling the tests is most of the time of a build, and their own code need not be fast.
  target_compile_options(${name} PRIVATE -O0)
  set(properties TIMEOUT ${arg_TIMEOUT})
  if(arg_LABELS)
    list(APPEND properties LABELS "${arg_LABELS}")
  endif()
  if(arg_ENVIRONMENT)
    list(APPEND properties ENVIRONMENT "${arg_ENVIRONMENT}")
  endif()
  if("threads" IN_LIST arg_LABELS)
    add_dependencies(thread_tests ${name})
  endif()
  set(discovery "${CMAKE_CURRENT_BINARY_DIR}/${name}_suites")
  list(JOIN properties "]==] [==[" properties)
  file(GENERATE OUTPUT "${discovery}.cmake" CONTENT
"include([==[${PROJECT_SOURCE_DIR}/cmake/ZksDiscoverSuites.cmake]==])
zks_discover_suites([==[$<TARGET_FILE:${name}>]==] ${name} [==[${discovery}.txt]==] [==[${PROJECT_BINARY_DIR}/reports]==]
  [==[${arg_EACH_CASE_ALONE}]==] [==[${properties}]==])
")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${discovery}.cmake")
endfunction()

# zks_add_shared_of_modules(NAME MODULES module... [LINKS target...] [OVER target...])
# One shared library that holds all objects of the modules named, which must be defined before. What the modules link
# comes from the modules' own links; or, with OVER, from the shared libraries named, and no static module is linked.
function(zks_add_shared_of_modules name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "MODULES;LINKS;OVER")
  add_library(${name} SHARED)
  set_target_properties(${name} PROPERTIES LINKER_LANGUAGE CXX)
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_include_directories(${name} SYSTEM PUBLIC $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>)
  foreach(module IN LISTS arg_MODULES)
    target_sources(${name} PRIVATE $<TARGET_OBJECTS:${module}>)
  endforeach()
  if(NOT arg_OVER)
    # The modules are linked as well for what they link; nothing in their archives is still missing then.
    target_link_libraries(${name} PRIVATE ${arg_MODULES})
  endif()
  target_link_libraries(${name} PUBLIC ${arg_LINKS} ${arg_OVER})
endfunction()

# zks_add_benchmark(NAME SOURCES file... [LINKS target...])
# A program that measures one module.
function(zks_add_benchmark name)
  if(NOT ZKS_BUILD_BENCHMARKS)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINKS")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LINKS} benchmark::benchmark_main zks_warnings)
  zks_run_benchmark_once(${name} --benchmark_min_time=0)
endfunction()

# zks_run_benchmark_once(NAME [ARG...])
# Has the tests run the benchmark with these arguments, each of its contenders once, so that it cannot rot.
function(zks_run_benchmark_once name)
  if(ZKS_BUILD_TESTS)
    add_test(NAME bench.${name} COMMAND ${name} ${ARGN})
    set_tests_properties(bench.${name} PROPERTIES TIMEOUT 600 ENVIRONMENT ZKS_BENCH_ONCE=1)
  endif()
endfunction()

# All fuzz targets: what preset fuzz builds.
add_custom_target(fuzz_targets)

# zks_add_fuzz_target(NAME CORPUS folder SOURCES Foo_fuzz.cpp... [LINKS target...])
# A program around LLVMFuzzerTestOneInput. In the fuzz preset libFuzzer drives it; in every other build a small driver of
# our own (tests/fuzzing) does, over the kept inputs in CORPUS and a fixed set of mutations. Either way ctest runs it for a
# moment, as fuzz.NAME.
function(zks_add_fuzz_target name)
  if(NOT ZKS_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "CORPUS" "SOURCES;LINKS")
  cmake_path(ABSOLUTE_PATH arg_CORPUS)
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LINKS} zks_warnings)
  add_dependencies(fuzz_targets ${name})
  if(ZKS_FUZZ)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    set(found ${CMAKE_CURRENT_BINARY_DIR}/${name}_found)  # libFuzzer writes to the first folder that it is given
    file(MAKE_DIRECTORY ${found})
    set(how -runs=5000 -seed=1 -malloc_limit_mb=64 -artifact_prefix=${name}- ${found})
    file(GENERATE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/${name}.corpus CONTENT "${arg_CORPUS}\n")  # for scripts/fuzz
  else()
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/fuzzing/fuzzDriver.cpp)
    set(how "")
  endif()
  add_test(NAME fuzz.${name} COMMAND ${name} ${how} ${arg_CORPUS})
  set_tests_properties(fuzz.${name} PROPERTIES TIMEOUT 120)
endfunction()
