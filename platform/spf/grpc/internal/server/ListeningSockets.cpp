#include "platform/spf/grpc/internal/server/ListeningSockets.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "platform/errors/systemError.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/grpc/internal/endpoint/address.h"
#include "platform/spf/grpc/internal/endpoint/grpcTime.h"

namespace agent::spf::grpc_transport::internal {

namespace {

[[noreturn]] void refuse(const std::string& address, const std::string& why) {
  throw FrameworkError("Cannot listen at " + address + ": " + why + ".");
}

files::UniqueFd makeSocket(int family) {
  return files::UniqueFd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// 0, or the error.
int bindAndListen(int socket, const sockaddr* at, socklen_t size) {
  return ::bind(socket, at, size) == 0 && ::listen(socket, SOMAXCONN) == 0 ? 0 : errno;
}

// The connections that are accepted inherit these.
void setOptions(int socket, std::chrono::milliseconds unackedLimit) {
  const int on = 1;
  ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const int limit = millisecondsForGrpc(unackedLimit);
  ::setsockopt(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, &limit, sizeof limit);
}

in_port_t& portIn(sockaddr& at) {
  return at.sa_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(at).sin6_port
                                  : reinterpret_cast<sockaddr_in&>(at).sin_port;
}

in_port_t portOfSocket(int socket) {
  sockaddr_storage at{};
  socklen_t size = sizeof at;
  ::getsockname(socket, reinterpret_cast<sockaddr*>(&at), &size);
  return portIn(reinterpret_cast<sockaddr&>(at));
}

}  // namespace

ListeningSockets::ListeningSockets(const std::string& address, std::chrono::milliseconds unackedLimit)
    : address_(address) {
  if (isUnixAddress(address_))
    listenAtFile();
  else
    listenAtHost(unackedLimit);
}

ListeningSockets::~ListeningSockets() {
  if (isUnixAddress(address_))
    ::unlink(unixPath(address_).c_str());
}

void ListeningSockets::listenAtFile() {
  const std::string path = unixPath(address_);
  if (const std::string why = whyFileNotListening(path); !why.empty())
    refuse(address_, why);
  sockaddr_un at{};
  fillAddress(path, at);
  ::unlink(path.c_str());
  files::UniqueFd socket = makeSocket(AF_UNIX);
  if (const int error = bindAndListen(socket.get(), reinterpret_cast<const sockaddr*>(&at), sizeof at); error != 0)
    refuse(address_, errors::systemErrorText(error));
  sockets_.push_back(std::move(socket));
}

// At every address of the host where that goes, and at the same port.
void ListeningSockets::listenAtHost(std::chrono::milliseconds unackedLimit) {
  int error = 0;
  const AddressList found = resolve(address_, AI_PASSIVE, error);
  if (found == nullptr)
    refuse(address_, "the host name cannot be resolved (" + std::string(::gai_strerror(error)) + ")");
  for (const addrinfo* at = found.get(); at != nullptr; at = at->ai_next) {
    files::UniqueFd socket = makeSocket(at->ai_family);
    setOptions(socket.get(), unackedLimit);
    if (!sockets_.empty())
      portIn(*at->ai_addr) = portOfSocket(sockets_.front().get());
    if (const int failure = bindAndListen(socket.get(), at->ai_addr, at->ai_addrlen); failure == 0)
      sockets_.push_back(std::move(socket));
    else if (error == 0)
      error = failure;
  }
  if (sockets_.empty())
    refuse(address_, errors::systemErrorText(error));
  address_ = hostOf(address_) + ":" + std::to_string(ntohs(portOfSocket(sockets_.front().get())));
}

}  // namespace agent::spf::grpc_transport::internal
