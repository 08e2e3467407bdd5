// Addresses: "unix:/absolute/path" or "HOST:PORT".
#pragma once

#include <sys/un.h>

#include <string>

#include "platform/spf/grpc/connect.h"

namespace agent::spf::grpc_transport::internal {

// FrameworkError when the text is neither.
void checkAddress(const std::string& address);
bool isUnixAddress(const std::string& address) noexcept;
// The path of "unix:/absolute/path".
std::string unixPath(const std::string& address);
// False when the path is too long for the kernel.
bool fillAddress(const std::string& path, sockaddr_un& to) noexcept;
// The HOST of "HOST:PORT".
std::string hostOf(const std::string& address);

// Why a connection to the address fails, found out by trying once, with these options: "nothing
// listens there (Connection refused)".
std::string whyUnreachable(const std::string& address, const ConnectOptions& options);
// Why nobody can listen at the address, or nothing when it seems that one can. A socket file that nothing serves any
// more is in nobody's way.
std::string whyNotListening(const std::string& address);

}  // namespace agent::spf::grpc_transport::internal
