// Tells one call's handler that nobody waits for its reply any more.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

#include "platform/threads/Mutex.h"

namespace agent::spf::core::internal {

// Threads: any. What ServerCall::isCancelled and ServerCall::onCancel promise is kept here.
class CancelNotice {
 public:
  bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_acquire); }
  // Replaces the callback; runs it at once, here, when the call has been cancelled before. Waits for a callback that is
  // running on another thread.
  void setCallback(std::function<void()> callback);
  // What the framework itself does after the callback, or now when the call has been cancelled before; it may come to run
  // twice. An empty function takes it back.
  void setFollowUp(const std::function<void()>& followUp);
  // Marks the call, without running the callback: true the first time. Then run() is due, where blocking is allowed.
  bool mark() noexcept { return !cancelled_.exchange(true, std::memory_order_acq_rel); }
  void run();

 private:
  std::function<void()> takeCallback();
  void runCallback();

  std::atomic<bool> cancelled_{false};
  parallel::threads::Mutex mutex_;
  parallel::threads::ConditionVariable ended_;
  std::function<void()> callback_ ZKS_GUARDED_BY(mutex_);
  std::function<void()> followUp_ ZKS_GUARDED_BY(mutex_);
  std::thread::id runner_ ZKS_GUARDED_BY(mutex_);  // whose thread runs a callback now
};

}  // namespace agent::spf::core::internal
