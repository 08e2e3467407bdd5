// The sockets that a server listens on: one for a socket file, one for each address of a TCP host.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "platform/files/UniqueFd.h"

namespace agent::spf::grpc_transport::internal {

// Ownership: owns the sockets, and the socket file, which goes with them.
class ListeningSockets {
 public:
  // `unackedLimit`: when the kernel gives a TCP peer up that takes nothing any more.
  // FrameworkError names the address and says why nobody can listen there. A socket file that nothing serves any more
  // is in nobody's way.
  ListeningSockets(const std::string& address, std::chrono::milliseconds unackedLimit);
  ~ListeningSockets();
  ListeningSockets(const ListeningSockets&) = delete;
  ListeningSockets& operator=(const ListeningSockets&) = delete;

  // Where clients connect to: as given, with the real port.
  const std::string& address() const noexcept { return address_; }
  const std::vector<files::UniqueFd>& sockets() const noexcept { return sockets_; }

 private:
  void listenAtFile();
  void listenAtHost(std::chrono::milliseconds unackedLimit);

  std::string address_;
  std::vector<files::UniqueFd> sockets_;  // they do not block
};

}  // namespace agent::spf::grpc_transport::internal
