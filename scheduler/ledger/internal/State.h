// All that a ledger has in memory.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>

#include "scheduler/ledger/Archive.h"
#include "scheduler/ledger/Kept.h"
#include "scheduler/ledger/internal/Delays.h"
#include "scheduler/ledger/internal/Job.h"
#include "scheduler/ledger/internal/LeaseClock.h"
#include "scheduler/ledger/internal/Leases.h"
#include "scheduler/ledger/internal/ReadyQueue.h"

namespace parallel::scheduler::ledger {

struct Worker {
  WorkerRecord record;
  std::set<AttemptNumber> attempts;  // granted to it, and not ended
};

struct State {
  State(const Archive& books, Moment now) : archive(books), leaseClock(now.running) {}

  Job* findJob(JobId id);
  const Job* findJob(JobId id) const;
  Worker* findWorker(WorkerId id);
  // The attempt in memory with this very key, whose worker this is; null: none.
  AttemptRecord* findAttempt(const AttemptKey& key, WorkerId worker);

  // From now on the jobs that the array waits for know it.
  void watch(const Job& job, const TaskArray& array);
  void unwatch(const Job& job);

  // What the worker may be granted next, within this room.
  std::optional<ReadyQueue::Choice> nextFor(const Worker& worker, const Resources& room) const;

  // Puts the array among what its job offers, or takes it from there, and the job to its place in the queues.
  void reoffer(Job& job, const TaskArray& array);
  // The job's priority, its cores in use, or whether it is held have changed.
  void requeue(Job& job);
  void unqueue(Job& job);

  static bool isGiven(const Worker& worker);
  bool isKeptFree(const Worker& worker) const;

  const Archive& archive;
  Counters counters;
  std::map<std::string, KeyRecord> keys;
  std::unordered_map<JobId, Job> jobs;
  std::map<WorkerId, Worker> workers;
  std::unordered_map<std::string, WorkerId> workersByKey;
  std::unordered_map<AttemptNumber, AttemptRecord> attempts;  // not ended; without details
  ReadyQueue queue;
  Delays delays;
  LeaseClock leaseClock;
  Leases leases;
};

}  // namespace parallel::scheduler::ledger
