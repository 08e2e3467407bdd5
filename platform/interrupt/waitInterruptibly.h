// A wait that the user can end.
#pragma once

#include <algorithm>
#include <chrono>

#include "platform/interrupt/interpreterContext.h"
#include "platform/interrupt/utInterruptState.h"
#include "platform/threads/Mutex.h"

// Waits until the condition holds (true) or the deadline has passed (false). On an interpreter thread an interrupt ends
// the wait with the host's exception, within about 50 ms. The lock is released then, and while the host is asked. On
// other threads this is an ordinary wait. Clang's analysis cannot follow a lock that its caller passes in.
template <class Condition>
bool waitInterruptibly(parallel::threads::ConditionVariable& changed, parallel::threads::MutexLock& lock,
                       Condition condition,
                       std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max())
    ZKS_NO_THREAD_SAFETY_ANALYSIS {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kPollInterval{50};
  const bool asks = foundation::usm::Detail<foundation::usm::scope::Tvm>::isRequiredContextActive();
  if (!asks && deadline == Clock::time_point::max()) {
    changed.wait(lock, condition);
    return true;
  }
  while (!changed.waitUntil(lock, asks ? std::min(deadline, Clock::now() + kPollInterval) : deadline, condition)) {
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
