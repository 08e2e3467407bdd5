# Builds platform/files anew with the sources of HOST in the place of the bundled ones, and runs its tests.
# Arguments: TREE (the source tree), HOST (a host vendor's folder), WORK (a folder to use), COMPILER.
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${ARGV}\nended with ${result}:\n${output}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} -S ${TREE} -B ${WORK} -G Ninja -DCMAKE_CXX_COMPILER=${COMPILER} -DCMAKE_BUILD_TYPE=Debug
  -DZKS_BUILD_BENCHMARKS=OFF -DZKS_HOST_DIR=${HOST})
run(${CMAKE_COMMAND} --build ${WORK} --target platform_files_test)
file(GLOB_RECURSE objects RELATIVE ${WORK}/platform/files ${WORK}/platform/files/CMakeFiles/platform_files.dir/*.o)
if(NOT objects MATCHES "^[^;]*examples/host/nativePath\\.cpp\\.o$")
  message(FATAL_ERROR "platform_files was not made of the host's source alone, but of ${objects}")
endif()
run(${WORK}/platform/files/platform_files_test)
file(REMOVE_RECURSE ${WORK})
