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

// Ownership: borrows the sockets until it is stopped. Threads: has one of its own, which hands over.
class Acceptor {
 public:
  struct Limits {
    std::size_t connections;
    std::size_t perPeer;
    std::chrono::milliseconds stuckTime;  // after which a connection ends whose client takes nothing
  };
  // Takes a connected socket that does not block, and the one that it came in at.
  using HandOver = std::function<void(int listener, files::UniqueFd connection)>;

  // std::system_error when there is no descriptor for it.
  Acceptor(const ListeningSockets& listening, const Limits& limits, HandOver handOver);
  ~Acceptor();
  Acceptor(const Acceptor&) = delete;
  Acceptor& operator=(const Acceptor&) = delete;

  // std::system_error when there is no thread for it.
  void start();
  // Takes in no more.
  void stop();

  // As ConnectionTable::endHeaviest. Threads: any.
  std::optional<std::string> endHeaviest();
  // As ConnectionTable::onlyUser. Threads: any.
  std::optional<uid_t> socketUser();
  // As ConnectionTable::introduced. Threads: any.
  void introduced(const std::string& client);

 private:
  enum class Outcome { accepted, nobodyWaits, outOfResources };
  using Counts = std::map<std::string, std::size_t>;  // of connections, by peer

  void run();
  bool acceptAll();
  bool isFull();
  Outcome acceptOne(int listener);
  void take(int listener, files::UniqueFd connection);
  void pause(const std::string& why);
  int pollMilliseconds();
  void look();
  void report();

  const ListeningSockets& listening_;
  const HandOver handOver_;
  const files::UniqueFd end_;  // can be read when the thread is to end
  const Limits limits_;
  const std::chrono::milliseconds lookInterval_;

  parallel::threads::Mutex mutex_;
  ConnectionTable table_ ZKS_GUARDED_BY(mutex_);

  // The thread's own.
  bool pausing_ = false;
  Counts refused_;    // since the last report
  Counts strangers_;  // that have closed since then
  std::chrono::steady_clock::time_point nextReport_{};
  std::chrono::steady_clock::time_point nextLook_{};

  std::thread thread_;
};

}  // namespace agent::spf::grpc_transport::internal
