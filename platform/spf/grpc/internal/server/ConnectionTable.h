// The connections of a server that are open, and whose they are.
//
// gRPC owns their descriptors and tells nobody when it closes one. So the kernel is asked: a descriptor that is still
// the same socket, which its cookie says, is an open connection.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace agent::spf::grpc_transport::internal {

// Who is at the other end of a connected socket: the address of a TCP peer, the network of 64 bits for IPv6, since
// there one host has as many addresses as it likes; or the process at the other end of a socket file.
std::string peerOf(int socket);
// The address and port at the other end of a TCP connection, as peerText() gives those of a stream; empty for others.
std::string clientAt(int socket);

// The user of the process at the other end of a socket file; none of other sockets.
std::optional<uid_t> userOf(int socket);

// Threads: one at a time. Ownership: owns no descriptor.
class ConnectionTable {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  ConnectionTable(std::size_t maxConnections, std::size_t maxPerPeer)
      : maxConnections_(maxConnections), maxPerPeer_(maxPerPeer) {}

  // False while there may be a connection.
  bool isEmpty() const noexcept { return connections_.empty(); }
  // Whether there is room for one more connection at all.
  bool isFull();
  // Takes a connection in, unless its peer has as many as it may.
  bool admit(int socket, const std::string& peer);
  // Ends the connection that has brought the most bytes, or the newest where the kernel does not count them. Returns
  // whose it was; nothing when there was none.
  std::optional<std::string> endHeaviest();

  // The user whose processes have connected by a socket file, unless there were several. gRPC does not tell by which
  // connection a stream has come, so that of several users nobody knows which of them it was.
  std::optional<uid_t> onlyUser() const;

  // The client at that end of a connection has shown who it is: it has opened a stream.
  void introduced(const std::string& client) { strangers_.erase(client); }
  // How many connections of which peer have closed before that, since this was last asked. Of TCP connections.
  std::map<std::string, std::size_t> takeClosedStrangers();

  // To be called every now and then. Ends the connections whose clients have taken nothing for so long of what waits in
  // the kernel to be taken, and returns whose they were. gRPC notices such a client on TCP, where the kernel helps; on a
  // socket file it waits for the client for ever.
  std::vector<std::string> endStuck(TimePoint now, std::chrono::milliseconds limit);

 private:
  struct Connection {
    std::uint64_t cookie = 0;  // the kernel counts them when they are first asked for
    std::string peer;
    std::string client;
    int unread = 0;  // what waited in the kernel when it was last looked at
    TimePoint lastTaken{};
  };
  using Connections = std::map<int, Connection>;

  void forgetClosed();
  Connections::iterator forget(Connections::iterator closed);
  std::size_t countOf(const std::string& peer) const;

  const std::size_t maxConnections_;
  const std::size_t maxPerPeer_;
  Connections connections_;          // by descriptor; those closed since forgetClosed() among them
  std::set<std::string> strangers_;  // clients that have not shown yet who they are
  std::map<std::string, std::size_t> closedStrangers_;
  std::set<uid_t> users_;  // of socket files, those that have left among them
};

}  // namespace agent::spf::grpc_transport::internal
