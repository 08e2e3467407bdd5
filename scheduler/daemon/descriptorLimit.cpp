#include "scheduler/daemon/descriptorLimit.h"

#include <sys/resource.h>

#include <algorithm>

namespace parallel::scheduler {

DescriptorLimit raiseDescriptorLimit() noexcept {
  struct rlimit limit {};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const struct rlimit raised { limit.rlim_max, limit.rlim_max };
  const bool isRaised = ::setrlimit(RLIMIT_NOFILE, &raised) == 0;
  return {limit.rlim_cur, isRaised ? limit.rlim_max : limit.rlim_cur};
}

std::size_t connectionsWithin(std::uint64_t descriptors) noexcept {
  return static_cast<std::size_t>(std::clamp<std::uint64_t>(descriptors / 2, 1, 1000));
}

}  // namespace parallel::scheduler
