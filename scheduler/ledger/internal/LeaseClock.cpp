#include "scheduler/ledger/internal/LeaseClock.h"

#include <algorithm>

namespace parallel::scheduler::ledger {

void LeaseClock::advance(Duration now) {
  if (now <= seen_)
    return;
  time_ += std::min(now - seen_, kLongestStep);
  seen_ = now;
}

}  // namespace parallel::scheduler::ledger
