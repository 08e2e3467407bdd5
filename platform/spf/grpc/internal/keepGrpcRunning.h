// gRPC's process-wide start.
#pragma once

namespace agent::spf::grpc_transport::internal {

// Starts gRPC once and for the rest of the process. Left to itself gRPC ends its threads with its last object and
// starts them anew with the next; ending them can wait for ever when a thread of its pool is just polling.
void keepGrpcRunning();

}  // namespace agent::spf::grpc_transport::internal
