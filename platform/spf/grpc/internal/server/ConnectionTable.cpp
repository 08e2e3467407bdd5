#include "platform/spf/grpc/internal/server/ConnectionTable.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "platform/files/UniqueFd.h"

namespace agent::spf::grpc_transport::internal {

namespace {

// Of the socket with this descriptor; 0 when there is none.
std::uint64_t cookieOf(int socket) {
  std::uint64_t cookie = 0;
  socklen_t size = sizeof cookie;
  return ::getsockopt(socket, SOL_SOCKET, SO_COOKIE, &cookie, &size) == 0 ? cookie : 0;
}

// That have come in on a TCP connection; 0 for others.
std::uint64_t receivedBytes(int socket) {
  tcp_info info{};
  socklen_t size = sizeof info;
  return ::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 ? info.tcpi_bytes_received : 0;
}

// Nothing happens when the descriptor is another socket by now.
void endConnection(int socket, std::uint64_t cookie) {
  const files::UniqueFd same(::fcntl(socket, F_DUPFD_CLOEXEC, 0));  // which nobody else closes meanwhile
  if (cookieOf(same.get()) == cookie)
    ::shutdown(same.get(), SHUT_RDWR);
}

std::string textOf(int family, const void* address) {
  char text[INET6_ADDRSTRLEN] = "";
  ::inet_ntop(family, address, text, sizeof text);
  return text;
}

std::string textOf(in6_addr address) {
  if (IN6_IS_ADDR_V4MAPPED(&address))
    return textOf(AF_INET, &address.s6_addr[12]);
  if (IN6_IS_ADDR_LOOPBACK(&address))
    return textOf(AF_INET6, &address);
  constexpr std::size_t kNetworkBytes = 8;
  std::fill_n(address.s6_addr + kNetworkBytes, sizeof address.s6_addr - kNetworkBytes, std::uint8_t{0});
  return textOf(AF_INET6, &address) + "/64";
}

std::string processAt(int socket) {
  ucred process{};
  socklen_t size = sizeof process;
  ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &process, &size);
  return "process " + std::to_string(process.pid);
}

}  // namespace

std::string peerOf(int socket) {
  sockaddr_storage peer{};
  socklen_t size = sizeof peer;
  if (::getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) != 0)
    return "a peer that has left";
  switch (peer.ss_family) {
    case AF_INET:
      return textOf(AF_INET, &reinterpret_cast<const sockaddr_in&>(peer).sin_addr);
    case AF_INET6:
      return textOf(reinterpret_cast<const sockaddr_in6&>(peer).sin6_addr);
    default:
      return processAt(socket);
  }
}

bool ConnectionTable::isFull() {
  if (connections_.size() >= maxConnections_)
    forgetClosed();
  return connections_.size() >= maxConnections_;
}

bool ConnectionTable::admit(int socket, const std::string& peer) {
  if (countOf(peer) >= maxPerPeer_)
    forgetClosed();
  if (countOf(peer) >= maxPerPeer_)
    return false;
  connections_.insert_or_assign(socket, Connection{cookieOf(socket), peer});
  return true;
}

std::optional<std::string> ConnectionTable::endHeaviest() {
  forgetClosed();
  const auto weightOf = [](const auto& entry) { return std::pair(receivedBytes(entry.first), entry.second.cookie); };
  const auto heaviest = std::max_element(connections_.begin(), connections_.end(),
                                         [&](const auto& a, const auto& b) { return weightOf(a) < weightOf(b); });
  if (heaviest == connections_.end())
    return std::nullopt;
  endConnection(heaviest->first, heaviest->second.cookie);
  std::string peer = heaviest->second.peer;
  connections_.erase(heaviest);
  return peer;
}

void ConnectionTable::forgetClosed() {
  std::erase_if(connections_, [](const auto& entry) { return cookieOf(entry.first) != entry.second.cookie; });
}

std::size_t ConnectionTable::countOf(const std::string& peer) const {
  return static_cast<std::size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                [&](const auto& entry) { return entry.second.peer == peer; }));
}

}  // namespace agent::spf::grpc_transport::internal
