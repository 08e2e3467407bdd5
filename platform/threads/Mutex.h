// The standard library's locks with annotations, so that clang refuses code that touches a guarded field without its
// lock. The only locks of this tree; the costs are those of the standard ones.
//
//   class Counter {
//    public:
//     void add() {
//       const MutexLock lock(mutex_);
//       ++count_;
//     }
//    private:
//     Mutex mutex_;
//     int count_ ZKS_GUARDED_BY(mutex_) = 0;
//   };
//
// A lambda is a function of its own for the analysis: one that runs with the lock held says so,
// [this]() ZKS_REQUIRES(mutex_) { return count_ > 0; }.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "platform/threads/annotations.h"

namespace parallel::threads {

// Not recursive. A Mutex is neither copied nor moved.
class ZKS_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ZKS_ACQUIRE() { mutex_.lock(); }
  void unlock() ZKS_RELEASE() { mutex_.unlock(); }
  bool try_lock() ZKS_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

// Holds a mutex from its construction to its destruction, or to unlock().
class ZKS_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ZKS_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~MutexLock() ZKS_RELEASE() {}  // NOLINT(modernize-use-equals-default): a defaulted one takes no attribute
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  // Releases early; lock() takes it again.
  void unlock() ZKS_RELEASE() { lock_.unlock(); }
  void lock() ZKS_ACQUIRE() { lock_.lock(); }

 private:
  friend class ConditionVariable;
  std::unique_lock<std::mutex> lock_;
};

// Waits for what other threads change under a mutex. While it waits the mutex is free; when a wait returns, the lock is
// held again. A condition is called with the lock held.
class ConditionVariable {
 public:
  void notifyOne() noexcept { changed_.notify_one(); }
  void notifyAll() noexcept { changed_.notify_all(); }

  // May return without a reason: call it in a loop.
  void wait(MutexLock& lock) { changed_.wait(lock.lock_); }
  template <class Condition>
  void wait(MutexLock& lock, Condition condition) {
    changed_.wait(lock.lock_, std::move(condition));
  }
  // These say whether the condition holds.
  template <class Clock, class Duration, class Condition>
  bool waitUntil(MutexLock& lock, std::chrono::time_point<Clock, Duration> deadline, Condition condition) {
    return changed_.wait_until(lock.lock_, deadline, std::move(condition));
  }
  template <class Rep, class Period, class Condition>
  bool waitFor(MutexLock& lock, std::chrono::duration<Rep, Period> atMost, Condition condition) {
    return changed_.wait_for(lock.lock_, atMost, std::move(condition));
  }

 private:
  std::condition_variable changed_;
};

}  // namespace parallel::threads
