// Addresses: "unix:/absolute/path" or "HOST:PORT".
#pragma once

#include <netdb.h>
#include <sys/un.h>

#include <memory>
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
// Why nobody can listen at this path, or nothing when it seems that one can. A socket file that nothing serves any more
// is in nobody's way.
std::string whyFileNotListening(const std::string& path);

using AddressList = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;
// The addresses of "HOST:PORT"; with `flags` for getaddrinfo. Null with its error when there are none.
AddressList resolve(const std::string& address, int flags, int& error);

}  // namespace agent::spf::grpc_transport::internal
