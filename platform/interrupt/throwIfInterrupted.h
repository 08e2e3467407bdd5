// The check for a pending interrupt that long work makes between two pieces of it.
#pragma once

#include "platform/interrupt/interpreterContext.h"
#include "platform/interrupt/utInterruptState.h"

// On an interpreter thread a pending interrupt leaves as the host's exception. Elsewhere nothing happens.
inline void throwIfInterrupted() {
  if (foundation::usm::Detail<foundation::usm::scope::Tvm>::isRequiredContextActive())
    utInterruptState::ThrowIfInterruptPending();
}
