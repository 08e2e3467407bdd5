#include "platform/interrupt/SigintInterrupts.h"

#include "platform/errors/systemError.h"
#include "platform/interrupt/utInterruptState.h"

namespace {

extern "C" void onSigint(int /*signal*/) {
  utInterruptState::request();
}

}  // namespace

// No SA_RESTART: a blocking call of the program comes back with EINTR, so that its loop can look at the flag.
SigintInterrupts::SigintInterrupts() : previous_{} {
  struct sigaction action {};
  action.sa_handler = onSigint;
  sigemptyset(&action.sa_mask);
  if (sigaction(SIGINT, &action, &previous_) != 0)
    errors::throwSystemError("cannot handle SIGINT");
}

SigintInterrupts::~SigintInterrupts() {
  sigaction(SIGINT, &previous_, nullptr);
}
