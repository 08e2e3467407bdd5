// Ctrl-C and the signals that end a program politely, for the command line.
//
// While it lives, SIGINT, SIGTERM and SIGHUP are pending interrupts for the calling thread, which counts as an
// interpreter thread; and they stay pending: every later check throws again, so that no catch-all on the way can turn
// the interrupt into an error of its own for good. One per process.
//
// Whoever does not look for interrupts cannot hold them up either: some time after the signal `emergency` runs on a
// thread of its own, whatever the program is busy with.
#pragma once

#include <chrono>
#include <csignal>
#include <functional>
#include <thread>

#include "platform/interrupt/interpreterContext.h"

namespace zks {

class Interrupts {
 public:
  Interrupts();
  ~Interrupts();
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

  // The signal that came; 0 while none has.
  static int signal() noexcept;

  // Once, before a signal can come. `emergency` must not return.
  void setEmergency(std::chrono::milliseconds patience, std::function<void()> emergency);

 private:
  foundation::usm::InterpreterContext context_;
  struct sigaction previous_[3];
  std::jthread watchdog_;
};

}  // namespace zks
