// Takes in the connections that come to a server's listening sockets, as many as may be, and hands them over.
//
// gRPC's own way of accepting knows no bounds, and stops for ever when the process is once out of descriptors.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>

#include "platform/files/UniqueFd.h"
#include "platform/spf/grpc/internal/server/ConnectionTable.h"
#include "platform/spf/grpc/internal/server/ListeningSockets.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

// Ownership: borrows the sockets. Threads: has one of its own, which hands over and ends with this object.
class Acceptor {
 public:
  struct Limits {
    std::size_t connections;
    std::size_t perPeer;
  };
  // Takes a connected socket that does not block, and the one that it came in at.
  using HandOver = std::function<void(int listener, files::UniqueFd connection)>;

  // std::system_error when there is no thread or descriptor for it.
  Acceptor(const ListeningSockets& listening, const Limits& limits, HandOver handOver);
  ~Acceptor();
  Acceptor(const Acceptor&) = delete;
  Acceptor& operator=(const Acceptor&) = delete;

  // As ConnectionTable::endHeaviest. Threads: any.
  std::optional<std::string> endHeaviest();

 private:
  enum class Outcome { accepted, nobodyWaits, outOfResources };

  void run();
  bool acceptAll();
  bool isFull();
  Outcome acceptOne(int listener);
  void take(int listener, files::UniqueFd connection);
  void pause(const std::string& why);
  void noteRefusal(const std::string& peer);
  void reportRefusals();

  const ListeningSockets& listening_;
  const HandOver handOver_;
  const files::UniqueFd end_;  // can be read when the thread is to end
  const Limits limits_;

  parallel::threads::Mutex mutex_;
  ConnectionTable table_ ZKS_GUARDED_BY(mutex_);

  // The thread's own.
  bool pausing_ = false;
  std::map<std::string, std::size_t> refused_;  // how many connections of which peer since the last report
  std::chrono::steady_clock::time_point nextReport_{};

  std::thread thread_;
};

}  // namespace agent::spf::grpc_transport::internal
