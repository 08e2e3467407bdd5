# The service framework beside bare gRPC and raw sockets. Programs of their own: each contender is two processes.
add_library(bench_spf_peers STATIC
  "${CMAKE_CURRENT_LIST_DIR}/spf_peers.cpp" "${CMAKE_CURRENT_LIST_DIR}/spf_peer_framework.cpp"
  "${CMAKE_CURRENT_LIST_DIR}/spf_peer_bare.cpp" "${CMAKE_CURRENT_LIST_DIR}/spf_peer_raw.cpp")
target_link_libraries(bench_spf_peers PUBLIC platform_spf_grpc PRIVATE gRPC::grpc++ zks_warnings)
foreach(name spf_stream_bench spf_call_bench)
  add_executable(${name} "${CMAKE_CURRENT_LIST_DIR}/${name}.cpp")
  target_link_libraries(${name} PRIVATE bench_spf_peers zks_warnings)
endforeach()
# GCC suspects gRPC's own unary-call header, inlined there.
set_source_files_properties("${CMAKE_CURRENT_LIST_DIR}/spf_peer_bare.cpp" PROPERTIES COMPILE_OPTIONS -Wno-null-dereference)
