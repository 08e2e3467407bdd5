// The host's pending-interrupt flag.
//
// One flag per process. request() sets it (from a front end or a signal handler: it is async-signal-safe), and so can
// one pluggable source that each check asks, such as an interpreter's own signal check.
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
  // Throws Corvane::System::InterruptException if an interrupt is pending, and clears the flag: one request ends one
  // operation. Asks the source first.
  static void ThrowIfInterruptPending();

  static void request() noexcept;
  static bool isPending() noexcept;
  static void clear() noexcept;

  // True from the source means that the user asked to stop; the source may throw instead, and its exception passes
  // through ThrowIfInterruptPending. An empty function removes the source.
  static void setSource(std::function<bool()> source);
};
