// Consecutive tasks of one job.
#pragma once

#include <compare>
#include <cstdint>

#include "scheduler/ledger/names.h"

namespace parallel::scheduler::ledger {

// Both ends belong to it, so that it is never empty.
struct TaskSpan {
  TaskNumber first = 0;
  TaskNumber last = 0;

  std::uint64_t count() const { return last - first + 1; }
  bool contains(TaskNumber task) const { return first <= task && task <= last; }
  bool overlaps(TaskSpan other) const { return first <= other.last && other.first <= last; }
  auto operator<=>(const TaskSpan&) const = default;
};

}  // namespace parallel::scheduler::ledger
