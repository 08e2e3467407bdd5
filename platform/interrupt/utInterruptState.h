// The host's pending-interrupt flag.
//
// One flag per process, fed by request() (a front end, a signal handler: async-signal-safe) and by at most one
// pluggable source that is asked at each check, such as an interpreter's own signal check.
#pragma once

#include <exception>
#include <functional>

namespace Corvane::System {

// The user asked to stop. Never wrapped, never turned into another error.
class InterruptException : public std::exception {
 public:
  const char* what() const noexcept override { return "Interrupted by the user"; }
};

}  // namespace Corvane::System

class utInterruptState {
 public:
  // Throws Corvane::System::InterruptException if an interrupt is pending, and takes the flag down in doing so: one
  // request ends one operation. Asks the source first.
  static void ThrowIfInterruptPending();

  // How many interrupts the calling thread has been given so far. Who calls code that turns every exception into its
  // own compares before and after.
  static unsigned long thrownOnThisThread() noexcept;

  static void request() noexcept;
  static bool isPending() noexcept;
  static void clear() noexcept;

  // True from the source means that the user asked to stop; the source may throw instead, and its exception passes
  // through ThrowIfInterruptPending. An empty function takes the source away.
  static void setSource(std::function<bool()> source);
};
