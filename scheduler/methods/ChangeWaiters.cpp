#include "scheduler/methods/ChangeWaiters.h"

#include <limits>
#include <utility>

namespace parallel::scheduler::methods {

using ledger::JobId;
using threads::MutexLock;

void ChangeWaiters::wait(JobId job, std::uint64_t version, Alarms::Clock::time_point deadline, Wake wake) {
  const MutexLock lock(mutex_);
  const std::uint64_t number = ++count_;
  const Alarms::Id alarm = alarms_.set(deadline, [this, job, number] { expire(job, number); });
  waiters_[job].push_back({version, number, alarm, std::move(wake)});
}

void ChangeWaiters::wakeAll(JobId job) {
  wakeBelow(job, std::numeric_limits<std::uint64_t>::max());
}

void ChangeWaiters::changed(const BookKeeper::ChangedJobs& jobs) {
  for (const auto& [job, version] : jobs)
    wakeBelow(job, version);
}

void ChangeWaiters::wakeBelow(JobId job, std::uint64_t version) {
  Waiters woken;
  {
    const MutexLock lock(mutex_);
    const auto found = waiters_.find(job);
    if (found == waiters_.end())
      return;
    for (auto next = found->second.begin(); next != found->second.end();) {
      const auto waiter = next++;
      if (waiter->version < version)
        woken.splice(woken.end(), found->second, waiter);
    }
    if (found->second.empty())
      waiters_.erase(found);
  }
  for (const Waiter& waiter : woken) {
    alarms_.take(waiter.alarm);
    waiter.wake();
  }
}

void ChangeWaiters::expire(JobId job, std::uint64_t number) {
  Waiters woken;
  {
    const MutexLock lock(mutex_);
    const auto found = waiters_.find(job);
    if (found == waiters_.end())
      return;
    for (auto next = found->second.begin(); next != found->second.end();) {
      const auto waiter = next++;
      if (waiter->number == number)
        woken.splice(woken.end(), found->second, waiter);
    }
    if (found->second.empty())
      waiters_.erase(found);
  }
  for (const Waiter& waiter : woken)
    waiter.wake();
}

}  // namespace parallel::scheduler::methods
