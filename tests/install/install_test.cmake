# Installs the build into a folder of its own, builds an outside project on it, and runs what came out, against the
# installed service too.
# Arguments: BUILD (the build tree), CONSUMER (the outside project), EXAMPLE (the README's C++ program), ECHO_ARRAY_TEST
# (which runs it), WORK (a folder to use), COMPILER, LAUNCHER (of the compiler; may be empty), FLAGS, HEADERS (whether to
# compile each header alone), PROTOC.
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${ARGV}\nended with ${result}:\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix)
# Nothing of a test or of a module's inside.
file(GLOB_RECURSE headers ${WORK}/prefix/include/*.h)
list(FILTER headers INCLUDE REGEX "/(internal|testing)/|Test\\.h$")
if(headers)
  message(FATAL_ERROR "installed, though not for users: ${headers}")
endif()
run(${CMAKE_COMMAND} -S ${CONSUMER} -B ${WORK}/build -G Ninja -DCMAKE_PREFIX_PATH=${WORK}/prefix -DEXAMPLE=${EXAMPLE}
  -DHEADERS=${HEADERS} -DCMAKE_CXX_COMPILER=${COMPILER} -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER}
  -DCMAKE_CXX_FLAGS=${FLAGS})
run(${CMAKE_COMMAND} --build ${WORK}/build)
run(${WORK}/build/consumer)
if(NOT output STREQUAL "00000000010003616263ffff\n")
  message(FATAL_ERROR "the outside project printed ${output}")
endif()
run(${ECHO_ARRAY_TEST} ${WORK}/prefix/bin/zksd ${WORK}/build/echo_array)
# A stranger's client is generated from the schemas as they are installed.
run(${PROTOC} --proto_path=${WORK}/prefix/share/zks --python_out=${WORK} transport.proto zksmessages.proto
  jobs.proto)
run(${WORK}/prefix/bin/zks --version)
file(REMOVE_RECURSE ${WORK})
