// The completion queue of a server, and the two threads that serve it: one serves, the other guards.
//
// A handler that is known to be quick runs on the thread that serves, which saves a wake-up: a small call takes 0.7 to
// 0.8 of the time that it takes when its handler is handed to another thread (docs/performance.md). Should the handler take its time after all, the guard takes the queue over; the thread of the handler guards when it returns,
// and until then there are no quick handlers.
#pragma once

#include <grpcpp/completion_queue.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

// Threads: runSoon() on the thread that serves, start() and shutdown() on one other.
class ServerQueue {
 public:
  // How often the guard looks: a handler may hold the queue up for twice that.
  static constexpr std::chrono::milliseconds kLook{1};
  // The guard sleeps when no quick handler has run for so many looks; the next one wakes it.
  static constexpr int kLooksInVain = 20;

  explicit ServerQueue(std::unique_ptr<grpc::ServerCompletionQueue> queue) : queue_(std::move(queue)) {}

  grpc::ServerCompletionQueue* queue() noexcept { return queue_.get(); }

  // std::system_error when the threads cannot be had; shutdown() is still due.
  void start();
  // When no operation is under way, and none will be started. Waits for the threads.
  void shutdown();

  // Runs a quick handler on this thread, when the completion that is being served has been; once per completion. False
  // when that cannot be, since nobody guards.
  bool runSoon(const std::function<void()>& handler);

 private:
  enum class Role { server, guard, none };
  enum class Guard { absent, asleep, watching };

  void work(Role role);
  Role serve();
  bool runHandler(const std::function<void()>& handler);
  std::uint64_t holdQueue();
  Role guard();
  bool watch(parallel::threads::MutexLock& lock) ZKS_REQUIRES(mutex_);

  const std::unique_ptr<grpc::ServerCompletionQueue> queue_;
  std::thread threads_[2];
  std::function<void()> next_;  // belongs to the thread that serves

  parallel::threads::Mutex mutex_;
  parallel::threads::ConditionVariable changed_;
  std::uint64_t calls_ ZKS_GUARDED_BY(mutex_) = 0;
  // The number of the call whose handler holds the queue up; 0: none.
  std::uint64_t holder_ ZKS_GUARDED_BY(mutex_) = 0;
  Guard guard_ ZKS_GUARDED_BY(mutex_) = Guard::absent;
  bool ended_ ZKS_GUARDED_BY(mutex_) = false;
};

}  // namespace agent::spf::grpc_transport::internal
