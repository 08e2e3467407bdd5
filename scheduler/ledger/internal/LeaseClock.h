// The time that counts for leases: that in which the service itself was running.
#pragma once

#include "scheduler/ledger/names.h"

namespace parallel::scheduler::ledger {

// A service that runs shows its clock at least every second. When it has not for longer, it was stopped, or in a slow
// disk; workers could not reach it then, and only kLongestStep of that time counts.
class LeaseClock {
 public:
  static constexpr Duration kLongestStep = std::chrono::seconds(5);

  explicit LeaseClock(Duration begin) : seen_(begin) {}

  void advance(Duration now);
  Duration time() const { return time_; }

 private:
  Duration seen_;
  Duration time_{};
};

}  // namespace parallel::scheduler::ledger
