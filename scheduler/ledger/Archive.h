// What has ended is in the books and no longer in the ledger's memory. Seldom it has to look: through this face.
#pragma once

#include <optional>

#include "scheduler/ledger/TaskSet.h"
#include "scheduler/ledger/records.h"

namespace parallel::scheduler::ledger {

// Shows the books with every change that the ledger has handed out so far, be it committed or not.
// Threads: the ledger's. Errors: what is thrown passes through the ledger, which is then of no more use.
class Archive {
 public:
  Archive() = default;
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;
  virtual ~Archive() = default;

  virtual std::optional<AttemptRecord> attempt(const AttemptKey& key) const = 0;
  // Those of the job's tasks within `bounds` that have a TaskRecord of this state, one in which a task has ended.
  virtual TaskSet endedTasks(JobId job, TaskSpan bounds, TaskState state) const = 0;
};

}  // namespace parallel::scheduler::ledger
