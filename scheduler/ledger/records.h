// The rows of the books: all that a ledger has promised, in the shape in which it is kept.
//
// Each task of an array is in exactly one RangeRecord while it has not started in this round, and then in exactly
// one TaskRecord. `details` is opaque here: it is kept for those who describe or run the task, and is never read back.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "scheduler/ledger/Resources.h"
#include "scheduler/ledger/RetryRules.h"
#include "scheduler/ledger/TaskSpan.h"
#include "scheduler/ledger/names.h"

namespace parallel::scheduler::ledger {

// What the next ones are called.
struct Counters {
  JobId nextJob{1};
  WorkerId nextWorker{1};
  AttemptNumber nextAttempt = 1;

  bool operator==(const Counters&) const = default;
};

// The client's key of a job. Stays when the job is deleted.
struct KeyRecord {
  std::string key{};
  Digest digest{};
  JobId job{};

  bool operator==(const KeyRecord&) const = default;
};

// What stays the same about a job.
struct JobRecord {
  JobId id{};
  std::string key{};
  std::string name{};
  WallTime submitted{};
  std::string details{};

  bool operator==(const JobRecord&) const = default;
};

// What changes about a job.
struct JobProgress {
  JobId job{};
  std::uint64_t version = 0;  // grows with every change of the job or of its tasks
  std::int32_t priority = 0;  // the greater goes first
  bool held = false;          // none of its tasks is granted
  bool open = false;          // more tasks may come
  std::uint32_t round = 1;    // one more with each retry
  TaskCounts counts{};
  std::optional<WallTime> ended{};  // when it was closed and its last task ended

  bool operator==(const JobProgress&) const = default;
};

// A retry of a job: a round of its own, under a key of its own. Empty when a retry of another job made it.
struct RoundRecord {
  JobId job{};
  std::uint32_t round = 0;
  std::string key{};
  WallTime begun{};

  bool operator==(const RoundRecord&) const = default;
};

// What the tasks of an array wait for, until it has succeeded.
struct Dependency {
  enum class Kind : std::uint8_t {
    wholeJob,   // every task of the closed job
    oneTask,    // `task` of the job
    sameIndex,  // the array's n-th task waits for task `task` + n of the job
  };

  Kind kind = Kind::wholeJob;
  JobId job{};  // of a job submitted before, or of the job itself, then an earlier task
  TaskNumber task = 0;

  bool operator==(const Dependency&) const = default;
};

// Tasks that differ by their number only.
struct ArrayRecord {
  JobId job{};
  TaskSpan tasks{};
  Digest digest{};  // of the submission or the extension that begins with it; otherwise empty
  Resources needs{1, 0, {}};
  std::uint64_t atOnce = 0;         // so many may be granted or running; 0: any number
  std::uint32_t deathsAllowed = 3;  // so many workers may be lost while each of them runs one task alone
  RetryRules retries{};
  std::vector<Dependency> dependencies{};
  std::string details{};

  bool operator==(const ArrayRecord&) const = default;
};

// Tasks that have not started in this round: waiting, ready, cancelled or skipped.
struct RangeRecord {
  JobId job{};
  TaskSpan tasks{};
  TaskState state = TaskState::waiting;

  bool operator==(const RangeRecord&) const = default;
};

// One task that has been granted in this round.
struct TaskRecord {
  JobId job{};
  TaskNumber task = 0;
  TaskState state = TaskState::granted;
  std::uint32_t round = 1;
  AttemptNumber attempt = 0;  // the last one that was granted
  RetryCounts retries{};
  std::uint32_t deaths = 0;  // of workers that ran this task alone
  bool alone = false;        // a suspect: its next attempt has a worker for itself
  Duration delay{};          // of a ready task, before its next attempt; a restart begins it anew
  Ending ending{};           // of the last attempt, or of the task itself

  bool operator==(const TaskRecord&) const = default;
};

struct AttemptRecord {
  AttemptKey key{};
  WorkerId worker{};
  std::uint64_t sequence = 0;  // of the `take` that was answered with it
  std::uint32_t round = 1;
  AttemptState state = AttemptState::granted;
  bool alone = false;     // its worker runs nothing beside it
  bool accepted = false;  // of an ended one: what it delivered is what the task came to
  Ending ending{};
  WallTime granted{};
  std::optional<WallTime> ended{};
  std::string details{};

  bool operator==(const AttemptRecord&) const = default;
};

struct WorkerRecord {
  WorkerId id{};
  std::string key{};  // made by the worker, so that a repeated join finds it
  std::string name{};
  Resources resources{};
  WorkerState state = WorkerState::active;
  bool draining = false;       // keeps what it has and is given nothing more
  std::uint64_t sequence = 0;  // of the last `take` that was answered with attempts

  bool operator==(const WorkerRecord&) const = default;
};

}  // namespace parallel::scheduler::ledger
