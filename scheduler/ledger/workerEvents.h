// What workers tell a ledger, and what it answers. Whatever a worker sends renews its lease.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "scheduler/ledger/records.h"

namespace parallel::scheduler::ledger {

// An attempt that the worker has and has not been told the verdict of.
struct HeldAttempt {
  AttemptKey attempt{};
  bool isStarted = false;
};

// A worker that begins, or one that the ledger does not know any more. The same key again: the same worker.
struct Join {
  std::string key{};
  std::string name{};
  Resources resources{};
  std::uint64_t sequence = 0;  // of the last `take` that it sent; 0: none yet
  std::vector<HeldAttempt> held{};
};
struct Joined {
  WorkerId worker{};
  std::vector<AttemptKey> stop{};  // of those held: what is not the worker's to run
};

// Asks for attempts. A repeated sequence number gets the same answer again. With a new one, what was granted and is not
// held never arrived: it goes back, and is not counted as an attempt.
struct Take {
  WorkerId worker{};
  std::uint64_t sequence = 0;  // grows from 1 on
  std::vector<HeldAttempt> held{};
  Resources room{};         // what all that is granted may need together
  std::uint32_t limit = 1;  // so many attempts at most
};
struct Grant {
  AttemptKey attempt{};
  std::uint32_t round = 1;
  TaskNumber arrayFirst = 0;  // the first task of its array
  bool alone = false;         // the worker runs nothing beside it
  bool reportStart = false;   // run it only once a `renew` that says so was answered
};
struct Taken {
  std::vector<Grant> grants{};
  std::vector<AttemptKey> stop{};
};

// Says what runs. It takes nothing back: a grant may be on its way.
struct Renew {
  WorkerId worker{};
  std::vector<HeldAttempt> held{};
};
struct Renewed {
  std::vector<AttemptKey> stop{};
};

struct Result {
  AttemptKey attempt{};
  Ending ending{};  // EndReason::handedBack: not done, and not counted
  std::string details{};
};
// Hands in what attempts came to.
struct Finish {
  WorkerId worker{};
  std::vector<Result> results{};
};
struct Verdict {
  AttemptKey attempt{};
  bool isAccepted =
      false;  // otherwise the attempt was given up before: `ending` says why, none: there is no such attempt
  Ending ending{};
};
struct Finished {
  std::vector<Verdict> verdicts{};  // one for each result, in order
};

enum class LossCause : std::uint8_t {
  unexplained,  // it may have been one of its tasks that took it down
  explained,    // somebody or something else ended it: no task is a suspect
};

struct Drained {
  std::uint64_t attempts = 0;  // that it still has
};

// Those of which nothing is heard any more.
struct Lost {
  std::vector<WorkerId> workers{};
};

// A worker as it stands.
struct WorkerView {
  WorkerRecord record{};
  std::uint64_t attempts = 0;  // that it has
};

}  // namespace parallel::scheduler::ledger
