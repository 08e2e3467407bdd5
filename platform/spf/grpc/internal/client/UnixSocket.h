// A connected socket of the client's side that can be cut off, whatever gRPC has under way on it.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "platform/files/UniqueFd.h"

namespace agent::spf::grpc_transport::internal {

// Ownership: owns one file descriptor of the socket; gRPC gets one of its own. Threads: any.
class UnixSocket {
 public:
  // Connects to the socket file. std::system_error says why it cannot; timed_out when the one who listens has left
  // nobody in until the deadline. `poll` is asked about every 50 ms, and may throw to give up; may be empty.
  UnixSocket(const std::string& path, std::chrono::system_clock::time_point deadline,
             const std::function<void()>& poll);

  // Another descriptor of the same socket, for a new owner.
  int share() const;
  // Nothing goes in or out any more, for all who share the socket.
  void cutOff() noexcept;

 private:
  files::UniqueFd fd_;
};

}  // namespace agent::spf::grpc_transport::internal
