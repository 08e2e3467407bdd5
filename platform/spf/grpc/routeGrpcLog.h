// gRPC's own log lines.
#pragma once

namespace agent::spf::grpc_transport {

// Sends them to the logger "zks.grpc" from now on, errors as warnings and the rest as trace, instead of to standard
// error: there gRPC says, for one, whom it has refused to talk to. Of the whole process, so only for programs of our
// own.
void routeGrpcLog();

}  // namespace agent::spf::grpc_transport
