// Watches how much memory the daemon's own process has, and says when a connection has to go for it.
#pragma once

#include <chrono>
#include <cstdint>

#include "platform/files/UniqueFd.h"

namespace parallel::scheduler {

class MemoryGuard {
 public:
  explicit MemoryGuard(std::uint64_t limitBytes);

  std::uint64_t limitBytes() const noexcept { return limitBytes_; }
  // To be called every now and then. True when there is more than the limit allows, and either it grows on or the
  // end of the last connection has had time to show. Gives back what the allocator keeps before it says so.
  bool wantsLess();

 private:
  using Clock = std::chrono::steady_clock;

  std::uint64_t residentBytes() const;

  const std::uint64_t limitBytes_;
  const files::UniqueFd statistics_;  // kept open: it is read when there may be no other descriptor
  std::uint64_t atLastEnd_ = 0;       // what there was when the last connection was ended
  Clock::time_point lastEnd_{};
};

// Half of the memory of this machine, or of this process's control group where that has less.
std::uint64_t halfOfMemory();

}  // namespace parallel::scheduler
