// The books of a scheduler, and all of its decisions: who runs what, when, how often, and what it came to.
//
// A machine without thread, clock, file or random number: each event comes in with its time, is decided at once, and
// yields an answer and the changes to be kept. The answer may be given once they are kept. Rules: docs/ledger.md.
//
// Memory:  a task that has not started is part of a range, one that has ended is a count; in between it is a row.
// Threads: one at a time.
// Errors:  what a peer may get wrong is a Refusal, which changes nothing. After an exception (memory, the archive)
//          the ledger is of no more use: another one is read back from the books.
// Time:    may stand still and must not go back. Call tick() every second, after all events that came in before it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "scheduler/ledger/Archive.h"
#include "scheduler/ledger/Kept.h"
#include "scheduler/ledger/Refusal.h"
#include "scheduler/ledger/WaitReason.h"
#include "scheduler/ledger/clientEvents.h"
#include "scheduler/ledger/workerEvents.h"

namespace parallel::scheduler::ledger {

struct State;

class Ledger {
 public:
  // An empty one, or with `kept` one that goes on where its books end: leases and delays begin anew. The archive
  // must outlive it.
  explicit Ledger(const Archive& archive, const Kept& kept = {}, Moment now = {});
  ~Ledger();
  Ledger(const Ledger&) = delete;
  Ledger& operator=(const Ledger&) = delete;

  // --- clients ---
  Decision<Submitted> submitJob(const SubmitJob& event, Moment now);
  Decision<Extended> extendJob(const ExtendJob& event, Moment now);
  Decision<Done> closeJob(JobId job, Moment now);
  Decision<Cancelled> cancel(const Cancel& event, Moment now);
  Decision<Retried> retry(const Retry& event, Moment now);
  Decision<Done> hold(JobId job, Moment now);
  Decision<Done> release(JobId job, Moment now);
  Decision<Done> setPriority(JobId job, std::int32_t priority, Moment now);
  Decision<Done> deleteJob(JobId job, Moment now);
  Decision<Pruned> prune(WallTime endedBefore, Moment now);

  // --- workers ---
  Decision<Joined> join(const Join& event, Moment now);
  Decision<Taken> take(const Take& event, Moment now);
  Decision<Renewed> renew(const Renew& event, Moment now);
  Decision<Finished> finish(const Finish& event, Moment now);

  // --- those who look after workers ---
  // The worker is given nothing more.
  Decision<Drained> drainWorker(WorkerId worker, Moment now);
  // The worker has ended: what it ran can no longer deliver.
  Decision<Lost> workerLost(WorkerId worker, LossCause cause, Moment now);
  // Leases that lapse, delays that are over.
  Decision<Lost> tick(Moment now);

  // --- questions ---
  // Whether a job has been submitted under the key, be it deleted or not.
  bool knowsKey(const std::string& key) const;
  // Of a job that is not deleted.
  std::optional<JobProgress> progress(JobId job) const;
  // Why a task that has not ended does not run yet.
  std::optional<WaitReason> whyWaiting(JobId job, TaskNumber task) const;
  // Whether the take of this worker, left waiting with this room, would be granted something now. Not while the worker
  // is unreachable: a take that is answered counts as heard from it.
  bool hasWorkFor(WorkerId worker, const Resources& room) const;
  // Whether there is work, and no worker that is given any.
  bool wantsWorker() const;
  // Which worker has the attempt; none: it has ended, or never was.
  std::optional<WorkerId> workerOf(const AttemptKey& attempt) const;
  // Those that are not gone, in the order of their numbers.
  std::vector<WorkerView> workers() const;
  // When the next delay is over; none: no task waits for one.
  std::optional<Duration> nextDelayEnd() const;
  // What it has in memory, as rows in the order of their keys and without details: equal to what the books keep.
  Kept memory() const;

 private:
  template <class Apply>
  Decision<Done> change(JobId job, Moment now, Apply apply);

  std::unique_ptr<State> state_;
};

}  // namespace parallel::scheduler::ledger
