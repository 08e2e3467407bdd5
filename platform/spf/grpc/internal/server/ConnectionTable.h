// The connections of a server that are open, and whose they are.
//
// gRPC owns their descriptors and tells nobody when it closes one. So the kernel is asked: a descriptor that is still
// the same socket, which its cookie says, is an open connection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace agent::spf::grpc_transport::internal {

// Who is at the other end of a connected socket: the address of a TCP peer, the network of 64 bits for IPv6, since
// there one host has as many addresses as it likes; or the process at the other end of a socket file.
std::string peerOf(int socket);

// Threads: one at a time. Ownership: owns no descriptor.
class ConnectionTable {
 public:
  ConnectionTable(std::size_t maxConnections, std::size_t maxPerPeer)
      : maxConnections_(maxConnections), maxPerPeer_(maxPerPeer) {}

  // Whether there is room for one more connection at all.
  bool isFull();
  // Takes a connection in, unless its peer has as many as it may.
  bool admit(int socket, const std::string& peer);
  // Ends the connection that has brought the most bytes, or the newest where the kernel does not count them. Returns
  // whose it was; nothing when there was none.
  std::optional<std::string> endHeaviest();

 private:
  struct Connection {
    std::uint64_t cookie = 0;  // the kernel counts them when they are first asked for
    std::string peer;
  };

  void forgetClosed();
  std::size_t countOf(const std::string& peer) const;

  const std::size_t maxConnections_;
  const std::size_t maxPerPeer_;
  std::map<int, Connection> connections_;  // by descriptor; those closed since forgetClosed() among them
};

}  // namespace agent::spf::grpc_transport::internal
