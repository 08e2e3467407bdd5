// How far a sender may be ahead of this end's gRPC, for each stream in plain text.
#pragma once

namespace agent::spf::grpc_transport::internal {

// gRPC's own way is to estimate what the connection can carry, and that has no bound: on loopback it comes to tens of
// MiB for each stream, the more the busier the machine is. This much travels per stream and round trip at most.
// Over TLS, which is for distances, the estimate stays: there a fixed window of any size costs a quarter of the rate.
inline constexpr int kWindowBytes = 4 << 20;

}  // namespace agent::spf::grpc_transport::internal
