// In which form a toolbox operation reports what went wrong.
#pragma once

#include "transport/client/expandSPFErrors.h"

namespace parallel::toolbox {

enum class ErrorForm {
  OneMessage,  // as throwExpandedSPFErrors gives it, for front ends that can show one message
  Chain,       // as it is, causes nested, for front ends that show causes themselves
};

// Call inside a catch block.
[[noreturn]] inline void rethrowInForm(ErrorForm form) {
  if (form == ErrorForm::Chain)
    throw;
  spf::transport::throwExpandedSPFErrors();
}

}  // namespace parallel::toolbox
