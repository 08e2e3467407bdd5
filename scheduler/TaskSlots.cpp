#include "scheduler/TaskSlots.h"

#include <stdexcept>
#include <utility>

namespace parallel::scheduler {

TaskSlots::Slot::Slot(Slot&& other) noexcept : owner_(std::exchange(other.owner_, nullptr)) {}

TaskSlots::Slot& TaskSlots::Slot::operator=(Slot&& other) noexcept {
  if (this != &other) {
    release();
    owner_ = std::exchange(other.owner_, nullptr);
  }
  return *this;
}

void TaskSlots::Slot::release() noexcept {
  if (TaskSlots* owner = std::exchange(owner_, nullptr))
    owner->giveBack();
}

TaskSlots::TaskSlots(std::size_t count) : free_(count) {
  if (count == 0)
    throw std::invalid_argument("A scheduler needs at least one task slot");
}

TaskSlots::Slot TaskSlots::tryAcquire() {
  const threads::MutexLock lock(mutex_);
  if (free_ == 0)
    return {};
  --free_;
  return Slot(*this);
}

TaskSlots::Slot TaskSlots::acquire(const std::stop_token& stop) {
  Waiter self;
  threads::MutexLock lock(mutex_);
  if (stop.stop_requested())
    return {};
  if (free_ > 0) {
    --free_;
    return Slot(*this);
  }
  const auto place = waiting_.insert(waiting_.end(), &self);
  // The callback takes the mutex and may run here and now, or be waited for by its destructor: not under the lock.
  lock.unlock();
  {
    const std::stop_callback onStop(stop, [&] {
      const threads::MutexLock guard(mutex_);
      self.stopped = true;
      self.wake.notifyOne();
    });
    lock.lock();
    self.wake.wait(lock, [&] { return self.granted || self.stopped; });
    if (!self.granted)
      waiting_.erase(place);
    lock.unlock();
  }
  return self.granted ? Slot(*this) : Slot();
}

// A slot goes straight to the first who waits, so that nobody can slip in between.
void TaskSlots::giveBack() noexcept {
  const threads::MutexLock lock(mutex_);
  if (waiting_.empty()) {
    ++free_;
    return;
  }
  Waiter* next = waiting_.front();
  waiting_.pop_front();
  next->granted = true;
  next->wake.notifyOne();
}

std::size_t TaskSlots::freeCount() const {
  const threads::MutexLock lock(mutex_);
  return free_;
}

std::size_t TaskSlots::waitingCount() const {
  const threads::MutexLock lock(mutex_);
  return waiting_.size();
}

}  // namespace parallel::scheduler
