#include "platform/interrupt/interpreterContext.h"

namespace foundation::usm {
namespace {

thread_local int depth = 0;  // of contexts that are open on this thread

}  // namespace

bool Detail<scope::Tvm>::isRequiredContextActive() noexcept {
  return depth > 0;
}

InterpreterContext::InterpreterContext() noexcept {
  ++depth;
}

InterpreterContext::~InterpreterContext() {
  --depth;
}

}  // namespace foundation::usm
