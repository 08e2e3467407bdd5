// Errors for where nothing may be thrown.
#pragma once

#include <exception>

namespace agent::spf::core::internal {

// The Error with the text that `makeText` gives; when there is no memory for that, what says so.
template <class Error, class MakeText>
std::exception_ptr makeError(MakeText makeText) noexcept {
  try {
    return std::make_exception_ptr(Error(makeText()));
  } catch (...) {
    return std::current_exception();
  }
}

}  // namespace agent::spf::core::internal
