// Tells one call's handler that nobody waits for its reply any more.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace agent::spf::core::internal {

// Threads: any. What ServerCall::isCancelled and ServerCall::onCancel promise is kept here.
class CancelNotice {
 public:
  bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_acquire); }
  // Replaces the callback; runs it at once, here, when the call has been cancelled before. Waits for a callback that is
  // running on another thread.
  void setCallback(std::function<void()> callback);
  // Marks the call, without running the callback: true the first time. Then run() is due, where blocking is allowed.
  bool mark() noexcept { return !cancelled_.exchange(true, std::memory_order_acq_rel); }
  void run();

 private:
  void runLocked(std::unique_lock<std::mutex>& lock);

  std::atomic<bool> cancelled_{false};
  std::mutex mutex_;
  std::condition_variable ended_;
  std::function<void()> callback_;  // guarded by mutex_
  std::thread::id runner_;          // guarded by mutex_; whose thread runs a callback now
};

}  // namespace agent::spf::core::internal
