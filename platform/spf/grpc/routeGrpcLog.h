// gRPC's own log lines.
#pragma once

namespace agent::spf::grpc_transport {

// Sends them to the logger "zks.grpc" from now on, errors as warnings and the rest as trace, instead of to standard
// error: there gRPC says, for one, why a handshake has failed. Errors of one place in gRPC are told once in ten seconds,
// and counted in between. Of the whole process, so only for programs of our own.
void routeGrpcLog();

}  // namespace agent::spf::grpc_transport
