// Waiting for events with a deadline.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"

namespace parallel::execution::testing {

inline constexpr std::chrono::seconds kDeadline{30};

// For conditions that nobody announces. False when the deadline came first.
template <class Condition>
bool eventually(const Condition& condition) {
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end)
      return false;
    std::this_thread::yield();
  }
  return true;
}

inline bool isReadable(int fd, std::chrono::milliseconds within = kDeadline) {
  pollfd event{fd, POLLIN, 0};
  return ::poll(&event, 1, static_cast<int>(within.count())) > 0;
}

// Waits for a process that need not be a child of ours. A zombie has ended.
inline bool hasEnded(pid_t pid) {
  const files::UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (!process)
    return errno == ESRCH;
  return isReadable(process.get());
}

// The next line from a descriptor, without its end; throws at the deadline or the end of input.
inline std::string readLine(int fd) {
  std::string line;
  for (char c = 0;;) {
    if (!isReadable(fd) || ::read(fd, &c, 1) != 1)
      throw std::runtime_error("No whole line came; only \"" + line + "\"");
    if (c == '\n')
      return line;
    line += c;
  }
}

struct TestPipe {
  TestPipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
      errors::throwSystemError("pipe2");
    reading = files::UniqueFd(ends[0]);
    writing = files::UniqueFd(ends[1]);
  }
  files::UniqueFd reading;
  files::UniqueFd writing;
};

}  // namespace parallel::execution::testing
