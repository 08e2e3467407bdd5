// Who calls, as handlers and logs are told.
#pragma once

#include <string>
#include <string_view>

namespace agent::spf::grpc_transport::internal {

// Any client of a socket file.
inline constexpr const char* kSocketFilePeer = "unix";

// gRPC's name of a peer without its scheme and escapes: "127.0.0.1:40312" of "ipv4:127.0.0.1:40312", "[::1]:40312" of
// "ipv6:%5B::1%5D:40312", kSocketFilePeer of any client of a socket file.
std::string peerText(std::string_view grpcName);

}  // namespace agent::spf::grpc_transport::internal
