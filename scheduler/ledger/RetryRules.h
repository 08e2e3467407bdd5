// Which ends of an attempt are followed by another one, how often, and after which delay.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <vector>

#include "scheduler/ledger/names.h"

namespace parallel::scheduler::ledger {

struct RetryRule {
  static constexpr std::uint32_t kNoLimit = std::numeric_limits<std::uint32_t>::max();

  std::uint32_t limit = 0;  // retries of one task in one round for this reason
  Duration firstDelay{};    // doubles with each retry
  Duration longestDelay{};  // none: at most firstDelay doubled 32 times

  // Before retry number `retry`, which counts from 1.
  Duration delayBefore(std::uint32_t retry) const;
  bool operator==(const RetryRule&) const = default;
};

// The rules of one array. A lost worker's tasks run again as often as need be, unless told otherwise; others do not.
struct RetryRules {
  RetryRule exitCode{};
  std::vector<std::int32_t> exitCodes{};  // only these are retried; empty: all
  RetryRule signal{};
  RetryRule outOfMemory{};
  RetryRule timeLimit{};
  RetryRule notStarted{};
  RetryRule workerLost{RetryRule::kNoLimit, {}, {}};  // a limit of 0: the task must never run twice

  // The rule for this end; null when it is final.
  const RetryRule* find(Ending ending) const;
  bool operator==(const RetryRules&) const = default;
};

// How often one task was retried in this round, by reason.
using RetryCounts = std::array<std::uint32_t, kEndReasonCount>;

}  // namespace parallel::scheduler::ledger
