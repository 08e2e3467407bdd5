// Books in memory: every row that the changes of a ledger left, and nothing written anywhere.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "scheduler/ledger/Archive.h"
#include "scheduler/ledger/Changes.h"
#include "scheduler/ledger/Kept.h"

namespace parallel::scheduler::ledger {

// Threads: one at a time.
class Books final : public Archive {
 public:
  struct Tables {
    Counters counters;
    std::map<std::string, KeyRecord> keys;
    std::map<JobId, JobRecord> jobs;
    std::map<JobId, JobProgress> progress;
    std::map<std::pair<JobId, std::uint32_t>, RoundRecord> rounds;
    std::map<TaskKey, ArrayRecord> arrays;
    std::map<TaskKey, RangeRecord> ranges;
    std::map<TaskKey, TaskRecord> tasks;
    std::map<AttemptKey, AttemptRecord> attempts;
    std::map<WorkerId, WorkerRecord> workers;

    bool operator==(const Tables&) const = default;
  };

  Books() = default;
  explicit Books(Tables tables) : tables_(std::move(tables)) {}

  void apply(const Changes& changes);
  // What a ledger is read back from.
  Kept kept() const;
  const Tables& tables() const { return tables_; }

  std::optional<AttemptRecord> attempt(const AttemptKey& key) const override;
  TaskSet endedTasks(JobId job, TaskSpan bounds, TaskState state) const override;

 private:
  Tables tables_;
};

}  // namespace parallel::scheduler::ledger
