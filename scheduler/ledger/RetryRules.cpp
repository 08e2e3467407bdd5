#include "scheduler/ledger/RetryRules.h"

#include <algorithm>

namespace parallel::scheduler::ledger {

Duration RetryRule::delayBefore(std::uint32_t retry) const {
  constexpr std::uint32_t kMostDoublings = 32;
  const Duration longest = longestDelay > Duration::zero() ? longestDelay : Duration::max();
  Duration delay = std::min(firstDelay, longest);
  for (std::uint32_t doubled = 1; doubled < std::min(retry, kMostDoublings + 1) && delay < longest; ++doubled)
    delay = delay > longest / 2 ? longest : delay * 2;
  return delay;
}

const RetryRule* RetryRules::find(Ending ending) const {
  switch (ending.reason) {
    case EndReason::exitCode:
      return exitCodes.empty() || std::find(exitCodes.begin(), exitCodes.end(), ending.code) != exitCodes.end()
                 ? &exitCode
                 : nullptr;
    case EndReason::signal:
      return &signal;
    case EndReason::outOfMemory:
      return &outOfMemory;
    case EndReason::timeLimit:
      return &timeLimit;
    case EndReason::notStarted:
      return &notStarted;
    case EndReason::workerLost:
      return &workerLost;
    default:
      return nullptr;
  }
}

}  // namespace parallel::scheduler::ledger
