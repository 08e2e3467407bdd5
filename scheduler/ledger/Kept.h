// The rows that a ledger is read back from.
#pragma once

#include <vector>

#include "scheduler/ledger/records.h"

namespace parallel::scheduler::ledger {

// In any order. `details` may be left empty everywhere.
struct Kept {
  Counters counters;
  std::vector<KeyRecord> keys;
  std::vector<JobProgress> progress;
  std::vector<RoundRecord> rounds;
  std::vector<ArrayRecord> arrays;
  std::vector<RangeRecord> ranges;
  std::vector<TaskRecord> tasks;        // those that have not ended
  std::vector<AttemptRecord> attempts;  // those that have not ended
  std::vector<WorkerRecord> workers;    // those that are not gone

  bool operator==(const Kept&) const = default;
};

}  // namespace parallel::scheduler::ledger
