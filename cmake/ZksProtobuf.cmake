# zks_add_proto_module(NAME PROTOS file.proto... [LINKS target...] [FOR_TESTS])
# A static library of the C++ code that protoc makes of schemas of this tree. A schema platform/a/b.proto is included as
# "platform/a/b.pb.h", and imported by other schemas as "platform/a/b.proto". Generated code is compiled without our
# warnings, file by file (two such files in one unit clash), and without optimisation if it is for tests alone.
function(zks_add_proto_module name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "FOR_TESTS" "" "PROTOS;LINKS")
  set(out "${PROJECT_BINARY_DIR}/generated")
  file(MAKE_DIRECTORY "${out}")
  set(generated "")
  foreach(proto IN LISTS arg_PROTOS)
    cmake_path(ABSOLUTE_PATH proto OUTPUT_VARIABLE path)
    cmake_path(RELATIVE_PATH path BASE_DIRECTORY "${PROJECT_SOURCE_DIR}" OUTPUT_VARIABLE relative)
    cmake_path(REMOVE_EXTENSION relative LAST_ONLY OUTPUT_VARIABLE stem)
    add_custom_command(
      OUTPUT "${out}/${stem}.pb.cc" "${out}/${stem}.pb.h"
      COMMAND protobuf::protoc "--proto_path=${PROJECT_SOURCE_DIR}" "--cpp_out=${out}" "${path}"
      DEPENDS ${arg_PROTOS} protobuf::protoc
      COMMENT "protoc ${relative}"
      VERBATIM)
    list(APPEND generated "${out}/${stem}.pb.cc" "${out}/${stem}.pb.h")
  endforeach()
  zks_is_generated(${name} ${generated})
  add_library(${name} STATIC ${generated})
  target_include_directories(${name} SYSTEM PUBLIC $<BUILD_INTERFACE:${out}>)
  target_link_libraries(${name} PUBLIC protobuf::libprotobuf ${arg_LINKS})
  set_target_properties(${name} PROPERTIES UNITY_BUILD OFF)
  if(arg_FOR_TESTS)
    target_compile_options(${name} PRIVATE -O0 -g0)
  endif()
endfunction()

# zks_add_descriptor_set(NAME PROTO file.proto OUTPUT file.desc)
# The schema and all that it imports as a FileDescriptorSet, made by the target NAME.
function(zks_add_descriptor_set name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "PROTO;OUTPUT" "")
  add_custom_command(
    OUTPUT "${arg_OUTPUT}"
    COMMAND protobuf::protoc "--proto_path=${PROJECT_SOURCE_DIR}" --include_imports
            "--descriptor_set_out=${arg_OUTPUT}" "${CMAKE_CURRENT_SOURCE_DIR}/${arg_PROTO}"
    DEPENDS "${arg_PROTO}" protobuf::protoc
    VERBATIM)
  add_custom_target(${name} DEPENDS "${arg_OUTPUT}")
endfunction()
