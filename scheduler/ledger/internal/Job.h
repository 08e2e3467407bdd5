// A job in memory.
#pragma once

#include <cstdint>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "scheduler/ledger/internal/Dependents.h"
#include "scheduler/ledger/internal/ReadyQueue.h"
#include "scheduler/ledger/internal/TaskArray.h"

namespace parallel::scheduler::ledger {

struct Job {
  JobId id() const { return progress.job; }
  TaskNumber taskCount() const;
  std::uint64_t unendedCount() const;
  bool hasOnlySuccesses() const;
  std::uint64_t& count(TaskState state) { return progress.counts.at(static_cast<std::size_t>(state)); }
  std::uint64_t count(TaskState state) const { return progress.counts.at(static_cast<std::size_t>(state)); }

  std::optional<std::uint32_t> findRound(const std::string& key) const;

  // The array with this task, which the job has.
  TaskArray& arrayOf(TaskNumber task) { return std::prev(arrays.upper_bound(task))->second; }
  const TaskArray& arrayOf(TaskNumber task) const { return std::prev(arrays.upper_bound(task))->second; }
  // Those with tasks of the span, in order.
  std::vector<TaskArray*> arraysWithin(TaskSpan span);

  bool isUnended(TaskNumber task) const { return arrayOf(task).isUnended(task); }
  TaskSet unendedWithin(TaskSpan bounds) const;

  JobProgress progress;
  std::map<std::uint32_t, RoundRecord> rounds;
  std::map<TaskNumber, TaskArray> arrays;  // by the first task
  Dependents dependents;

  // What the job could have granted: for each demand the arrays that offer it.
  std::map<Demand, std::set<TaskNumber>> offers;
  std::uint64_t coresInUse = 0;
  // Where it stands in the queues.
  Turn turn;
  std::vector<Demand> queuedFor;
};

}  // namespace parallel::scheduler::ledger
