// The system's last error as an exception that says what was being done.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace parallel::scheduler {

// "writing the file \"x\": No space left on device"
[[noreturn]] inline void throwSystemError(const std::string& doing, int error = errno) {
  throw std::system_error(error, std::generic_category(), doing);
}

}  // namespace parallel::scheduler
