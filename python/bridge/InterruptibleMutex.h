// A mutex whose holder may be waiting for a service, so that the wait for it can be interrupted too.
//
// Threads: any, without the interpreter's lock: the holder may ask for that.
#pragma once

#include <chrono>
#include <mutex>

#include "platform/interrupt/utInterruptState.h"
#include "platform/threads/annotations.h"

namespace zks::bridge {

class ZKS_CAPABILITY("mutex") InterruptibleMutex {
 public:
  InterruptibleMutex() = default;
  InterruptibleMutex(const InterruptibleMutex&) = delete;
  InterruptibleMutex& operator=(const InterruptibleMutex&) = delete;

  // Throws the host's interrupt exception when an interrupt ends the wait.
  void lock() ZKS_ACQUIRE() {
    constexpr std::chrono::milliseconds kPollInterval{50};
    while (!mutex_.try_lock_for(kPollInterval))
      utInterruptState::ThrowIfInterruptPending();
  }
  bool try_lock() ZKS_TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  void unlock() ZKS_RELEASE() { mutex_.unlock(); }

 private:
  std::timed_mutex mutex_;
};

// Holds it from its construction to its destruction.
class ZKS_SCOPED_CAPABILITY InterruptibleLock {
 public:
  explicit InterruptibleLock(InterruptibleMutex& mutex) ZKS_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~InterruptibleLock() ZKS_RELEASE() { mutex_.unlock(); }
  InterruptibleLock(const InterruptibleLock&) = delete;
  InterruptibleLock& operator=(const InterruptibleLock&) = delete;

 private:
  InterruptibleMutex& mutex_;
};

}  // namespace zks::bridge
