// Functions that are to run at a time: one thread for all of them.
//
// Threads: any.
// Errors:  what a function throws is dropped.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <thread>
#include <utility>

#include "platform/threads/Mutex.h"

namespace parallel::scheduler::methods {

class Alarms {
 public:
  using Clock = std::chrono::steady_clock;
  using Ring = std::function<void()>;
  // When it rings, and a number.
  using Id = std::pair<Clock::time_point, std::uint64_t>;

  Alarms();
  ~Alarms() { stop(); }
  Alarms(const Alarms&) = delete;
  Alarms& operator=(const Alarms&) = delete;

  // `ring` runs on the thread of the alarms; it may set others.
  Id set(Clock::time_point time, Ring ring);
  // Nothing rings afterwards; waits for what is ringing.
  void stop();
  // One that rings meanwhile rings to its end, and nobody waits for that.
  void take(const Id& alarm);

 private:
  void serve();

  threads::Mutex mutex_;
  threads::ConditionVariable changed_;
  std::map<Id, Ring> alarms_ ZKS_GUARDED_BY(mutex_);
  std::uint64_t count_ ZKS_GUARDED_BY(mutex_) = 0;
  bool isClosing_ ZKS_GUARDED_BY(mutex_) = false;
  std::thread thread_;  // the last member: it uses the others
};

}  // namespace parallel::scheduler::methods
