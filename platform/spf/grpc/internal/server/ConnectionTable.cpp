#include "platform/spf/grpc/internal/server/ConnectionTable.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <iterator>
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

// A descriptor that nobody else closes meanwhile; none when that number is another socket by now.
files::UniqueFd hold(int socket, std::uint64_t cookie) {
  files::UniqueFd same(::fcntl(socket, F_DUPFD_CLOEXEC, 0));
  if (cookieOf(same.get()) != cookie)
    same.reset();
  return same;
}

void endConnection(int socket, std::uint64_t cookie) {
  if (const files::UniqueFd held = hold(socket, cookie))
    ::shutdown(held.get(), SHUT_RDWR);
}

// What the kernel holds because the other end has not taken it; 0 when there is no such socket.
int unreadBytes(int socket) {
  int nbytes = 0;
  return ::ioctl(socket, SIOCOUTQ, &nbytes) == 0 ? nbytes : 0;
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

// At the other end of a socket file, as it was when it connected.
ucred processAt(int socket) {
  ucred process{};
  socklen_t size = sizeof process;
  ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &process, &size);
  return process;
}

// False when there is none.
bool addressAt(int socket, sockaddr_storage& address) {
  socklen_t size = sizeof address;
  return ::getpeername(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0;
}

std::string clientText(const sockaddr_in& address) {
  return textOf(AF_INET, &address.sin_addr) + ":" + std::to_string(ntohs(address.sin_port));
}

std::string clientText(const sockaddr_in6& address) {
  const std::string port = ":" + std::to_string(ntohs(address.sin6_port));
  if (IN6_IS_ADDR_V4MAPPED(&address.sin6_addr))
    return textOf(AF_INET, &address.sin6_addr.s6_addr[12]) + port;
  const std::string scope = address.sin6_scope_id == 0 ? "" : "%" + std::to_string(address.sin6_scope_id);
  return "[" + textOf(AF_INET6, &address.sin6_addr) + scope + "]" + port;
}

}  // namespace

std::string peerOf(int socket) {
  sockaddr_storage peer{};
  if (!addressAt(socket, peer))
    return "a peer that has left";
  switch (peer.ss_family) {
    case AF_INET:
      return textOf(AF_INET, &reinterpret_cast<const sockaddr_in&>(peer).sin_addr);
    case AF_INET6:
      return textOf(reinterpret_cast<const sockaddr_in6&>(peer).sin6_addr);
    default:
      return "process " + std::to_string(processAt(socket).pid);
  }
}

std::optional<uid_t> userOf(int socket) {
  sockaddr_storage peer{};
  if (!addressAt(socket, peer) || peer.ss_family != AF_UNIX)
    return std::nullopt;
  return processAt(socket).uid;
}

std::string clientAt(int socket) {
  sockaddr_storage peer{};
  if (!addressAt(socket, peer))
    return {};
  switch (peer.ss_family) {
    case AF_INET:
      return clientText(reinterpret_cast<const sockaddr_in&>(peer));
    case AF_INET6:
      return clientText(reinterpret_cast<const sockaddr_in6&>(peer));
    default:
      return {};
  }
}

bool ConnectionTable::isFull() {
  if (connections_.size() >= maxConnections_)
    forgetClosed();
  return connections_.size() >= maxConnections_;
}

bool ConnectionTable::admit(int socket, const std::string& peer) {
  if (const auto closed = connections_.find(socket); closed != connections_.end())
    forget(closed);
  if (countOf(peer) >= maxPerPeer_)
    forgetClosed();
  if (countOf(peer) >= maxPerPeer_)
    return false;
  Connection connection{.cookie = cookieOf(socket), .peer = peer, .client = clientAt(socket)};
  if (!connection.client.empty())
    strangers_.insert(connection.client);
  connections_.emplace(socket, std::move(connection));
  if (const auto user = userOf(socket))
    users_.insert(*user);
  return true;
}

std::optional<uid_t> ConnectionTable::onlyUser() const {
  return users_.size() == 1 ? std::optional(*users_.begin()) : std::nullopt;
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
  forget(heaviest);
  return peer;
}

std::map<std::string, std::size_t> ConnectionTable::takeClosedStrangers() {
  forgetClosed();
  return std::exchange(closedStrangers_, {});
}

std::vector<std::string> ConnectionTable::endStuck(TimePoint now, std::chrono::milliseconds limit) {
  std::vector<std::string> ended;
  for (auto& [socket, connection] : connections_) {
    const files::UniqueFd held = hold(socket, connection.cookie);
    const int unread = unreadBytes(held.get());
    // A client that takes some has the service send more, and sooner or later there is another amount than before.
    if (unread == 0 || unread != std::exchange(connection.unread, unread))
      connection.lastTaken = now;
    if (now - connection.lastTaken < limit)
      continue;
    ::shutdown(held.get(), SHUT_RDWR);
    connection.lastTaken = now;
    ended.push_back(connection.peer);
  }
  return ended;
}

void ConnectionTable::forgetClosed() {
  for (auto entry = connections_.begin(); entry != connections_.end();)
    entry = cookieOf(entry->first) == entry->second.cookie ? std::next(entry) : forget(entry);
}

ConnectionTable::Connections::iterator ConnectionTable::forget(Connections::iterator closed) {
  if (strangers_.erase(closed->second.client) != 0)
    ++closedStrangers_[closed->second.peer];
  return connections_.erase(closed);
}

std::size_t ConnectionTable::countOf(const std::string& peer) const {
  return static_cast<std::size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                [&](const auto& entry) { return entry.second.peer == peer; }));
}

}  // namespace agent::spf::grpc_transport::internal
