// The largest resident set of a process that this one started.
//
// The kernel's own figure, at the end of a child, is too large by design: it starts at what the parent had resident
// when the child was made. So it is taken only where it lies above that; below, the child's own mark, looked at while
// it ran, is the best that is known. Units: bytes.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace parallel::execution {

class PeakMemory {
 public:
  explicit PeakMemory(pid_t pid) noexcept : pid_(pid) {}

  // Looks at the process as it is now. Without effect once it has ended.
  void sample() noexcept;
  // `kernelFigure`: ru_maxrss, in bytes. 0 when the process ended before it was looked at and stayed below the mark.
  std::uint64_t resolve(std::uint64_t kernelFigure) const noexcept;

 private:
  pid_t pid_;
  std::uint64_t sampled_ = 0;
};

// The resident high-water mark of a process; 0 if it cannot be read.
std::uint64_t residentHighWaterMark(pid_t pid) noexcept;

}  // namespace parallel::execution
