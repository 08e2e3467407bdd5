// The completion queue of a server, and who serves it: one thread at a time.
//
// When a call has come in, that thread hands the queue to another and runs the call's handler itself: the call does not
// wait for a thread to wake. A handler that is known to be quick it runs without handing the queue on, which would wake
// a thread for nothing. Should the handler take its time after all, another thread, the guard, takes the queue over.
#pragma once

#include <grpcpp/completion_queue.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/spf/core/internal/WorkerThreads.h"

namespace agent::spf::grpc_transport::internal {

// Threads: runNext() on the thread that serves, start() and shutdown() on one other.
class ServerQueue {
 public:
  // How often the guard looks: a handler may hold the queue up for twice that.
  static constexpr std::chrono::milliseconds kLook{1};
  // The guard leaves when no call has come for so many looks; the next one wakes a thread again.
  static constexpr int kLooksInVain = 20;

  // Ownership: borrows the threads, which have to end after shutdown() and before this object.
  ServerQueue(std::unique_ptr<grpc::ServerCompletionQueue> queue, core::internal::WorkerThreads& threads);

  grpc::ServerCompletionQueue* queue() noexcept { return queue_.get(); }

  void start();
  void shutdown();

  // Runs the handler when the completion that is being served has been; once per completion.
  void runNext(std::function<void()> handler, bool isQuick);

 private:
  enum class Role { server, guard, none };
  struct Next {
    std::function<void()> handler;
    bool isQuick = false;
  };

  void work(Role role);
  Role serve();
  Role run(const Next& next);
  bool handOn();
  std::uint64_t begin(bool isQuick);
  bool keeps(std::uint64_t call);
  Role guard();

  const std::unique_ptr<grpc::ServerCompletionQueue> queue_;
  core::internal::WorkerThreads& threads_;
  Next next_;  // belongs to the thread that serves

  std::mutex mutex_;
  std::condition_variable end_;
  std::uint64_t calls_ = 0;   // guarded by mutex_, as all below
  std::uint64_t holder_ = 0;  // the number of the call whose handler runs while its thread has the queue; 0: none
  bool guarded_ = false;
  bool ended_ = false;
};

}  // namespace agent::spf::grpc_transport::internal
