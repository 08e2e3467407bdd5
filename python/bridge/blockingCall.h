// How the bridge enters native code that may take long: without the interpreter's lock, and able to be stopped.
//
// On Python's main thread a signal handler that raises (Ctrl-C) ends the operation with the host's interrupt exception,
// and the translator of errors.h raises what the handler raised. On any thread a CallControl does the same from
// outside. No signal handler is installed: the interpreter's own check is asked.
//
// The interpreter's end: endOtherThreads() stops what the threads other than the main one are in. They do not come back
// to Python, which could only fail there, but stop for ever.
#pragma once

#include <pybind11/pybind11.h>

#include <atomic>
#include <functional>
#include <memory>
#include <utility>

#include "platform/interrupt/interpreterContext.h"

namespace zks::bridge {

// Stops the operations that it was given to, those that start later included.
class CallControl {
 public:
  // True the first time.
  bool cancel() noexcept { return !cancelled_.exchange(true); }
  bool isCancelled() const noexcept { return cancelled_.load(); }

 private:
  std::atomic<bool> cancelled_{false};
};

// While it lives the thread is without the interpreter's lock. Made and ended with the lock held.
class BlockingCall {
 public:
  // Either may be null.
  explicit BlockingCall(std::shared_ptr<const CallControl> control, std::shared_ptr<const CallControl> second);
  ~BlockingCall();
  BlockingCall(const BlockingCall&) = delete;
  BlockingCall& operator=(const BlockingCall&) = delete;

  struct State;

 private:
  foundation::usm::InterpreterContext context_;
  std::unique_ptr<State> state_;
};

template <class Operation>
auto withoutLock(std::shared_ptr<const CallControl> control, std::shared_ptr<const CallControl> second,
                 Operation&& operation) {
  const BlockingCall scope(std::move(control), std::move(second));
  return std::forward<Operation>(operation)();
}

template <class Operation>
auto withoutLock(Operation&& operation) {
  return withoutLock(nullptr, nullptr, std::forward<Operation>(operation));
}

// Runs a part of an operation with the interpreter's lock.
void withLockAgain(const std::function<void()>& action);

// Makes the interpreter's signal check the platform's source of interrupts, or takes it away.
void connectInterrupts();
void disconnectInterrupts();

// For the end of the interpreter: the operations of other threads are over soon, and so are those that begin later.
void endOtherThreads() noexcept;
// Waits until no other thread is in an operation, for some seconds at most. Without the interpreter's lock.
void awaitOtherThreads();

// Whether a CallControl stopped the operation that the calling thread is in, and not a signal.
bool wasCancelled() noexcept;

// Raises what the last interrupt on this thread was: the signal handler's own exception, concurrent.futures'
// CancelledError, or KeyboardInterrupt. Sets the error indicator.
void raiseInterrupt();

}  // namespace zks::bridge
