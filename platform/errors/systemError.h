// The system's error numbers as texts and as exceptions.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace errors {

// "No space left on device". Threads: any.
inline std::string systemErrorText(int error) {
  return std::generic_category().message(error);
}

// std::system_error that says what was being done: "Writing the file \"x\": No space left on device".
[[noreturn]] inline void throwSystemError(const std::string& doing, int error = errno) {
  throw std::system_error(error, std::generic_category(), doing);
}

}  // namespace errors
