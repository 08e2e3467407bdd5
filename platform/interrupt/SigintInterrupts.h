// Turns SIGINT (Ctrl-C) into pending interrupts while it lives. For programs that own their process's signal handlers;
// a guest in somebody else's process never uses it.
#pragma once

#include <csignal>

class SigintInterrupts {
 public:
  SigintInterrupts();   // throws std::system_error if the handler cannot be installed
  ~SigintInterrupts();  // puts the earlier handler back
  SigintInterrupts(const SigintInterrupts&) = delete;
  SigintInterrupts& operator=(const SigintInterrupts&) = delete;

 private:
  struct sigaction previous_;
};
