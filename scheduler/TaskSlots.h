// So many tasks may run at once; who comes later waits, and the turns go in the order of coming.
#pragma once

#include <cstddef>
#include <list>
#include <stop_token>

#include "platform/threads/Mutex.h"

namespace parallel::scheduler {

// Threads: any. A slot may be given back on another thread than the one that took it.
class TaskSlots {
 public:
  // The right to run one task; given back with the object. Must not outlive the TaskSlots.
  class Slot {
   public:
    Slot() = default;
    Slot(Slot&& other) noexcept;
    Slot& operator=(Slot&& other) noexcept;
    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;
    ~Slot() { release(); }

    explicit operator bool() const noexcept { return owner_ != nullptr; }
    void release() noexcept;

   private:
    friend class TaskSlots;
    explicit Slot(TaskSlots& owner) noexcept : owner_(&owner) {}
    TaskSlots* owner_ = nullptr;
  };

  // `count` is at least 1.
  explicit TaskSlots(std::size_t count);
  ~TaskSlots() = default;
  TaskSlots(const TaskSlots&) = delete;
  TaskSlots& operator=(const TaskSlots&) = delete;

  // An empty slot when it is not its turn at once.
  Slot tryAcquire();
  // Waits for its turn. An empty slot when stop is requested first; who waits behind then moves up.
  Slot acquire(const std::stop_token& stop);

  std::size_t freeCount() const;
  std::size_t waitingCount() const;

 private:
  struct Waiter {
    threads::ConditionVariable wake;
    bool granted = false;
    bool stopped = false;
  };

  void giveBack() noexcept;

  mutable threads::Mutex mutex_;
  std::size_t free_ ZKS_GUARDED_BY(mutex_);            // above 0 only while nobody waits
  std::list<Waiter*> waiting_ ZKS_GUARDED_BY(mutex_);  // the next one in front
};

}  // namespace parallel::scheduler
