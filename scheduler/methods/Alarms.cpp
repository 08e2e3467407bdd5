#include "scheduler/methods/Alarms.h"

#include "scheduler/methods/ownThreads.h"

namespace parallel::scheduler::methods {

using threads::MutexLock;

Alarms::Alarms() : thread_([this] { serve(); }) {}

void Alarms::stop() {
  {
    const MutexLock lock(mutex_);
    isClosing_ = true;
    changed_.notifyAll();
  }
  if (thread_.joinable())
    thread_.join();
}

Alarms::Id Alarms::set(Clock::time_point time, Ring ring) {
  const MutexLock lock(mutex_);
  const Id id{time, ++count_};
  alarms_.emplace(id, std::move(ring));
  if (alarms_.begin()->first == id)
    changed_.notifyAll();
  return id;
}

void Alarms::take(const Id& alarm) {
  Ring dropped;  // outside the lock: what it holds may be the last of its kind
  const MutexLock lock(mutex_);
  if (const auto found = alarms_.find(alarm); found != alarms_.end()) {
    dropped = std::move(found->second);
    alarms_.erase(found);
  }
}

void Alarms::serve() {
  markOwnThread();
  MutexLock lock(mutex_);
  while (!isClosing_) {
    if (alarms_.empty()) {
      changed_.wait(lock);
      continue;
    }
    const auto first = alarms_.begin();
    const Clock::time_point time = first->first.first;
    if (Clock::now() < time) {
      const auto isOther = [&]() ZKS_REQUIRES(mutex_) {
        return isClosing_ || alarms_.empty() || alarms_.begin()->first.first < time;
      };
      changed_.waitUntil(lock, time, isOther);
      continue;
    }
    Ring ring = std::move(first->second);
    alarms_.erase(first);
    lock.unlock();
    try {
      ring();
    } catch (...) {
    }
    ring = nullptr;
    lock.lock();
  }
}

}  // namespace parallel::scheduler::methods
