#include "platform/spf/grpc/internal/endpoint/address.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/security/diagnoseTls.h"

namespace agent::spf::grpc_transport::internal {

namespace {

constexpr std::string_view kUnix = "unix:";
constexpr int kProbeMilliseconds = 250;
// For a peer that has accepted the connection to say what it thinks of ours.
constexpr std::chrono::milliseconds kDiagnosisLimit{2000};

files::UniqueFd makeSocket(int family) {
  return files::UniqueFd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// The error of one attempt to connect; 0 when it succeeds.
int tryConnect(const files::UniqueFd& socket, const sockaddr* to, socklen_t size) {
  if (!socket)
    return errno;
  if (::connect(socket.get(), to, size) == 0)
    return 0;
  if (errno != EINPROGRESS)
    return errno;
  pollfd waiting{socket.get(), POLLOUT, 0};
  if (::poll(&waiting, 1, kProbeMilliseconds) <= 0)
    return ETIMEDOUT;
  int error = 0;
  socklen_t length = sizeof error;
  ::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &length);
  return error;
}

int tryConnectUnix(const files::UniqueFd& socket, const std::string& path) {
  sockaddr_un to{};
  if (!fillAddress(path, to))
    return ENAMETOOLONG;
  return tryConnect(socket, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

std::string portOf(const std::string& address) {
  return address.substr(address.rfind(':') + 1);
}

std::string withoutBrackets(const std::string& host) {
  return host.size() >= 2 && host.front() == '[' && host.back() == ']' ? host.substr(1, host.size() - 2) : host;
}

// Of what listens there and has accepted the connection.
std::string whyNoConversation(const files::UniqueFd& socket, const std::string& host, const ConnectOptions& options) {
  const security::Patience patience{kDiagnosisLimit, options.poll};
  std::string why;
  if (options.credentials)
    why = security::whyTlsFails(socket.get(), host, *options.credentials, patience, options.plainTextAdvice);
  else if (security::speaksTls(socket.get(), patience))
    why = "the service speaks TLS; connect with its credentials" + security::inBrackets(options.credentialsAdvice) +
          " and not in plain text";
  return why.empty() ? "something listens there, but it does not speak this protocol" : why;
}

std::string refusal(int error) {
  if (error == ECONNREFUSED)
    return "nothing listens there (" + errors::systemErrorText(error) + ")";
  return errors::systemErrorText(error);
}

std::string whyUnixUnreachable(const std::string& path, const ConnectOptions& options) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0)
    return errno == ENOENT ? "there is no such socket file"
                           : "the socket file cannot be seen (" + errors::systemErrorText(errno) + ")";
  if (!S_ISSOCK(status.st_mode))
    return "that file is not a socket";
  const files::UniqueFd socket = makeSocket(AF_UNIX);
  const int error = tryConnectUnix(socket, path);
  if (error == 0)
    return whyNoConversation(socket, "localhost", options);  // as gRPC calls the host of every socket file
  if (error == EACCES)
    return "the socket file is not open to this user (" + errors::systemErrorText(error) + ")";
  return refusal(error);
}

std::string whyTcpUnreachable(const std::string& address, const ConnectOptions& options) {
  int error = 0;
  const AddressList found = resolve(address, 0, error);
  if (found == nullptr)
    return "the host name cannot be resolved (" + std::string(::gai_strerror(error)) + ")";
  int refused = ECONNREFUSED;
  for (const addrinfo* to = found.get(); to != nullptr; to = to->ai_next) {
    const files::UniqueFd socket = makeSocket(to->ai_family);
    refused = tryConnect(socket, to->ai_addr, to->ai_addrlen);
    if (refused == 0)
      return whyNoConversation(socket, withoutBrackets(hostOf(address)), options);
  }
  return refusal(refused);
}

}  // namespace

bool isUnixAddress(const std::string& address) noexcept {
  return address.starts_with(kUnix);
}

std::string unixPath(const std::string& address) {
  return address.substr(kUnix.size());
}

bool fillAddress(const std::string& path, sockaddr_un& to) noexcept {
  to = {};
  to.sun_family = AF_UNIX;
  if (path.size() >= sizeof to.sun_path)
    return false;
  std::memcpy(to.sun_path, path.c_str(), path.size() + 1);
  return true;
}

std::string hostOf(const std::string& address) {
  return address.substr(0, address.rfind(':'));
}

void checkAddress(const std::string& address) {
  const std::string wanted = " is not an address; an address is unix:/absolute/path or HOST:PORT.";
  if (isUnixAddress(address)) {
    if (address.size() <= kUnix.size() || address[kUnix.size()] != '/' || address.find('\0') != std::string::npos)
      throw FrameworkError("\"" + address + "\"" + wanted);
    return;
  }
  const std::size_t colon = address.rfind(':');
  const bool hasPort = colon != std::string::npos && colon > 0 && colon + 1 < address.size() &&
                       address.find_first_not_of("0123456789", colon + 1) == std::string::npos &&
                       address.size() - colon <= 6 && std::stoi(address.substr(colon + 1)) <= 65535;
  if (!hasPort || address.find('/') != std::string::npos)
    throw FrameworkError("\"" + address + "\"" + wanted);
}

std::string whyUnreachable(const std::string& address, const ConnectOptions& options) {
  return isUnixAddress(address) ? whyUnixUnreachable(unixPath(address), options) : whyTcpUnreachable(address, options);
}

std::string whyFileNotListening(const std::string& path) {
  sockaddr_un to{};
  if (!fillAddress(path, to))
    return "the path is longer than " + std::to_string(sizeof to.sun_path - 1) + " bytes";
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0) {
    if (!S_ISSOCK(status.st_mode))
      return "that file exists and is not a socket";
    if (tryConnectUnix(makeSocket(AF_UNIX), path) == 0)
      return "another service listens there";
    return {};
  }
  const std::string directory = path.substr(0, path.rfind('/') + 1);
  if (::access(directory.c_str(), W_OK | X_OK) != 0)
    return "no file can be made in its directory (" + errors::systemErrorText(errno) + ")";
  return {};
}

AddressList resolve(const std::string& address, int flags, int& error) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags;
  addrinfo* found = nullptr;
  const std::string host = withoutBrackets(hostOf(address));
  error = ::getaddrinfo(host.c_str(), portOf(address).c_str(), &hints, &found);
  return {error == 0 ? found : nullptr, &::freeaddrinfo};
}

}  // namespace agent::spf::grpc_transport::internal
