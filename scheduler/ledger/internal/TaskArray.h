// An array in memory: its unstarted tasks as ranges, and a row for each that has started and not ended.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>

#include "scheduler/ledger/TaskSet.h"
#include "scheduler/ledger/records.h"

namespace parallel::scheduler::ledger {

struct TaskArray {
  explicit TaskArray(ArrayRecord fixed);

  TaskNumber first() const { return record.tasks.first; }
  std::uint64_t coresEach() const;
  // Of the states that a task may be in which has not started: waiting, ready, cancelled, skipped.
  TaskSet& unstarted(TaskState state);
  const TaskSet& unstarted(TaskState state) const;

  bool isUnended(TaskNumber task) const;
  TaskSet unendedWithin(TaskSpan bounds) const;
  // What these tasks of the array wait for, by a dependency on tasks; and back.
  TaskSpan dependees(const Dependency& dependency, TaskSpan tasks) const;
  std::optional<TaskSpan> dependents(const Dependency& dependency, TaskSpan dependees) const;
  // Whether a task may be granted now: one that wants a worker for itself, or one that does not.
  bool offers(bool alone) const;

  ArrayRecord record;                        // without details
  std::map<TaskNumber, TaskRecord> started;  // granted in this round, and not ended
  std::set<TaskNumber> again;                // of those started: ready, and not delayed
  std::set<TaskNumber> suspects;             // likewise, and to be tried alone
  std::uint64_t active = 0;                  // granted or running

 private:
  std::array<TaskSet, 4> unstarted_;
};

}  // namespace parallel::scheduler::ledger
