// A wait that the user can end.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/interrupt/interpreterContext.h"
#include "platform/interrupt/utInterruptState.h"

// Waits until the condition holds, or the deadline has passed; says which, true for the condition. On an interpreter
// thread an interrupt ends the wait with the host's exception, within about 50 ms; the lock is then released, as it is
// while the host is asked. Elsewhere an ordinary wait.
template <class Condition>
bool waitInterruptibly(std::condition_variable& changed, std::unique_lock<std::mutex>& lock, Condition condition,
                       std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max()) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kPollInterval{50};
  const bool asks = foundation::usm::Detail<foundation::usm::scope::Tvm>::isRequiredContextActive();
  if (!asks && deadline == Clock::time_point::max()) {
    changed.wait(lock, condition);
    return true;
  }
  while (!changed.wait_until(lock, asks ? std::min(deadline, Clock::now() + kPollInterval) : deadline, condition)) {
    if (asks) {
      lock.unlock();
      utInterruptState::ThrowIfInterruptPending();
      lock.lock();
    }
    if (Clock::now() >= deadline)
      return condition();
  }
  return true;
}
