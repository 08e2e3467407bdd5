// Calls that wait until a job has changed, or until their time is over.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <unordered_map>

#include "platform/threads/Mutex.h"
#include "scheduler/ledger/names.h"
#include "scheduler/methods/Alarms.h"
#include "scheduler/methods/BookKeeper.h"

namespace parallel::scheduler::methods {

// Ownership: borrows the alarms.
// Threads:   any.
class ChangeWaiters {
 public:
  using Wake = std::function<void()>;

  explicit ChangeWaiters(Alarms& alarms) : alarms_(alarms) {}

  // Calls `wake` once: when the job has a version above this one, or is deleted, or at the deadline. Call it in the turn in
  // which the version was seen. `wake` must not wait.
  void wait(ledger::JobId job, std::uint64_t version, Alarms::Clock::time_point deadline, Wake wake);
  // Calls every one that waits for the job.
  void wakeAll(ledger::JobId job);
  // What the keeper of the books tells.
  void changed(const BookKeeper::ChangedJobs& jobs);

 private:
  struct Waiter {
    std::uint64_t version = 0;
    std::uint64_t number = 0;
    Alarms::Id alarm;
    Wake wake;
  };
  using Waiters = std::list<Waiter>;

  void wakeBelow(ledger::JobId job, std::uint64_t version);
  void expire(ledger::JobId job, std::uint64_t number);

  Alarms& alarms_;
  threads::Mutex mutex_;
  std::unordered_map<ledger::JobId, Waiters> waiters_ ZKS_GUARDED_BY(mutex_);
  std::uint64_t count_ ZKS_GUARDED_BY(mutex_) = 0;
};

}  // namespace parallel::scheduler::methods
