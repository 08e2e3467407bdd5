// A wait that the user can end.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/interrupt/interpreterContext.h"
#include "platform/interrupt/utInterruptState.h"

// Waits until the condition holds. On an interpreter thread an interrupt ends the wait with the host's exception,
// within about 50 ms; the lock is then released, as it is while the host is asked. Elsewhere an ordinary wait.
template <class Condition>
void waitInterruptibly(std::condition_variable& changed, std::unique_lock<std::mutex>& lock, Condition condition) {
  constexpr std::chrono::milliseconds kPollInterval{50};
  if (!foundation::usm::Detail<foundation::usm::scope::Tvm>::isRequiredContextActive())
    return changed.wait(lock, condition);
  while (!changed.wait_for(lock, kPollInterval, condition)) {
    lock.unlock();
    utInterruptState::ThrowIfInterruptPending();
    lock.lock();
  }
}
