// gRPC's process-wide start.
#pragma once

namespace agent::spf::grpc_transport::internal {

// Starts gRPC with all its threads, once and for the rest of the process. Left to itself gRPC ends its threads with its
// last object and starts them anew with the next. Ending them can wait for ever: for a thread that is just polling, or for
// one that the system did not give.
// Where the system gives too few threads gRPC does not say so. Threads that are made afterwards then fail.
void keepGrpcRunning();

}  // namespace agent::spf::grpc_transport::internal
