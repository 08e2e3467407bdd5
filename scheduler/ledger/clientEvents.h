// What clients ask of a ledger, and what it answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "scheduler/ledger/TaskSet.h"
#include "scheduler/ledger/records.h"

namespace parallel::scheduler::ledger {

struct ArraySpec {
  std::uint64_t count = 1;
  Resources needs{1, 0, {}};
  std::uint64_t atOnce = 0;  // 0: any number
  std::uint32_t deathsAllowed = 3;
  RetryRules retries{};
  std::vector<Dependency> dependencies{};  // JobId 0 is the job itself
  std::string details{};
};

// The same key and digest again: the same job.
struct SubmitJob {
  std::string key{};
  Digest digest{};  // of all that follows
  std::string name{};
  std::string details{};
  std::int32_t priority = 0;
  bool held = false;
  bool open = false;  // more tasks may come
  std::vector<ArraySpec> arrays{};
};
struct Submitted {
  JobId job{};
  bool isRepeat = false;
};

// Tasks for an open job. The same first task and digest again: the same tasks.
struct ExtendJob {
  JobId job{};
  TaskNumber firstTask = 0;  // the number of tasks that the job had
  Digest digest{};           // of all that follows
  std::vector<ArraySpec> arrays{};
};
struct Extended {
  TaskNumber nextTask = 0;  // what the next extension begins with
  bool isRepeat = false;
};

// Of a change of a job as a whole: its version afterwards.
struct Done {
  std::uint64_t version = 0;
};

// Without tasks: all of the job, which takes no more.
struct Cancel {
  JobId job{};
  std::optional<TaskSet> tasks{};
};
struct Cancelled {
  struct Running {
    AttemptKey attempt;
    WorkerId worker{};
  };

  std::uint64_t stopped = 0;       // tasks that had not ended
  std::uint64_t alreadyEnded = 0;  // tasks that had
  // Of those stopped: what may run on until its worker is heard of.
  std::vector<Running> running{};
};

// Another round for the tasks that failed or were cancelled, and for those that were skipped for one of them. Without
// tasks: all of the job. The same key again: the same round.
struct Retry {
  JobId job{};
  std::string key{};
  std::optional<TaskSet> tasks{};
};
struct Retried {
  std::uint32_t round = 0;
  bool isRepeat = false;
};

struct Pruned {
  std::vector<JobId> jobs{};
};

}  // namespace parallel::scheduler::ledger
