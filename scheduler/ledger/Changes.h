// What one event does to the books: rows to write and rows to delete, to be kept in one transaction.
//
// In this order: `deletedJobs`, `droppedTasks`, then the rows, each table in any order. A row without a value is to be
// deleted. The answer to the event may be given once all of it is kept.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "scheduler/ledger/records.h"

namespace parallel::scheduler::ledger {

struct TaskKey {
  JobId job{};
  TaskNumber task = 0;

  auto operator<=>(const TaskKey&) const = default;
};

struct DroppedTasks {
  JobId job{};
  TaskSpan tasks;

  bool operator==(const DroppedTasks&) const = default;
};

template <class Key, class Row>
using Upserts = std::map<Key, Row>;
template <class Key, class Row>
using Edits = std::map<Key, std::optional<Row>>;

struct Changes {
  std::vector<JobId> deletedJobs;          // every row of theirs, except for their KeyRecords
  std::vector<DroppedTasks> droppedTasks;  // the TaskRecords of these tasks

  std::optional<Counters> counters;
  Upserts<std::string, KeyRecord> keys;
  Upserts<JobId, JobRecord> jobs;
  Upserts<JobId, JobProgress> progress;
  Upserts<std::pair<JobId, std::uint32_t>, RoundRecord> rounds;
  Upserts<TaskKey, ArrayRecord> arrays;  // by the first task
  Edits<TaskKey, RangeRecord> ranges;    // by the last task
  Edits<TaskKey, TaskRecord> tasks;
  Edits<AttemptKey, AttemptRecord> attempts;
  Upserts<WorkerId, WorkerRecord> workers;

  bool empty() const;
  // To this the changes of a later event: applying the outcome does what applying one after the other does.
  void merge(Changes later);

  bool operator==(const Changes&) const = default;
};

}  // namespace parallel::scheduler::ledger
