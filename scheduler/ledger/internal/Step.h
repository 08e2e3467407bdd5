// One event while it is applied: the transitions of tasks and attempts, with their rows written beside them.
//
// The ledger's memory changes with each call, and the books follow in changes(). finish() settles what the transitions
// led to: dependents that become ready or are skipped, and jobs that end.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "scheduler/ledger/Changes.h"
#include "scheduler/ledger/TaskSet.h"
#include "scheduler/ledger/clientEvents.h"
#include "scheduler/ledger/internal/State.h"
#include "scheduler/ledger/workerEvents.h"

namespace parallel::scheduler::ledger {

class Step {
 public:
  Step(State& state, Moment now);
  Changes finish() &&;

  Changes& changes() { return changes_; }
  Moment now() const { return now_; }

  // --- jobs ---
  Job& addJob(const JobProgress& progress);
  // Its version grows with this event.
  void touch(Job& job) { touched_.insert(job.id()); }
  // A round that this event begins in the job: the same one when asked again.
  std::uint32_t beginRound(Job& job, const std::string& key);
  void addArray(Job& job, ArrayRecord record);
  // Of a job that has ended.
  void deleteJob(JobId id);

  // --- tasks ---
  // Unstarted ones, from one range into another.
  void move(Job& job, TaskArray& array, TaskSpan span, TaskState from, TaskState to);
  // An unended task that has started ends. Its attempt is the caller's to end.
  void endTask(TaskRecord& task, TaskState state, Ending ending);
  // Those of these tasks that ended without success begin anew, except for those that wait for what will not succeed.
  // What was skipped for them follows. Whether there were any.
  bool revive(Job& job, const std::optional<TaskSet>& tasks, const std::string& roundKey);
  void endDelay(TaskKey task);

  // --- attempts ---
  // The next task of this choice, to the worker.
  const AttemptRecord& grant(Worker& worker, const ReadyQueue::Choice& choice, std::uint64_t sequence);
  // The worker says that it has it: a lapsed attempt is its own again.
  void adopt(AttemptRecord& attempt, bool isStarted);
  // It never arrived.
  void giveBack(AttemptRecord& attempt);
  void deliver(AttemptRecord& attempt, const Result& result);
  // The worker has ended, or does not have it any more.
  void lose(AttemptRecord& attempt, LossCause cause);
  // Without a verdict on the task. The attempt goes out of memory.
  void endAttempt(AttemptRecord& attempt, bool isAccepted, Ending ending, const std::string& details = {});

  // --- workers ---
  // The worker of this key, a new one if need be.
  Worker& admit(const Join& event);
  // It is unreachable.
  void lapse(Worker& worker);
  void heardFrom(Worker& worker);
  void write(const Worker& worker);
  void remove(Worker& worker);

 private:
  struct Settled {
    JobId job{};
    TaskSpan tasks;
    bool haveSucceeded = false;
  };
  struct Place {
    Job& job;
    TaskArray& array;
    TaskRecord& task;
  };

  Place placeOf(const AttemptRecord& attempt);
  TaskRecord& takeTask(Job& job, TaskArray& array, TaskNumber number);
  void addToRange(Job& job, TaskArray& array, TaskSpan span, TaskState state);
  void takeFromRange(Job& job, TaskArray& array, TaskSpan span, TaskState state);
  void dropAttempt(const AttemptRecord& attempt);
  void write(const TaskRecord& task);
  void write(const AttemptRecord& attempt);
  void setState(Place place, TaskState state);
  void makeReady(Place place, Duration delay);
  void takeFromReady(Place place);
  void returnUncounted(Place place);
  void retryOrFail(Place place, Ending ending);
  void lapse(AttemptRecord& attempt);
  bool countLoss(Place place, bool ranAlone, LossCause cause);
  void forgetLoss(Place place, AttemptRecord& attempt);

  // Dependents (stepDependents.cpp).
  void settleTasks(const Settled& settled);
  void settleEndOf(Job& job);
  void settleArray(Job& job, TaskArray& array, TaskSpan tasks, bool haveSucceeded);
  void releaseMet(Job& job, TaskArray& array, TaskSpan tasks);
  TaskSet unmetOf(const TaskArray& array, const Dependency& dependency, const TaskSet& tasks) const;
  TaskSet hopelessOf(const TaskArray& array, const TaskSet& tasks) const;
  TaskSet hopelessOf(const TaskArray& array, const Dependency& dependency, const TaskSet& tasks) const;
  TaskSet unsuccessfulOf(Job& job, TaskSpan bounds) const;

  // Retries (stepRevival.cpp).
  struct Revived {
    JobId job{};
    std::optional<TaskSpan> tasks;  // none: the job, which had ended
  };
  bool reviveIn(Job& job, TaskArray& array, TaskSet tasks, TaskState state, const std::string& roundKey);
  void reviveSpan(Job& job, TaskArray& array, TaskSpan span, TaskState state);
  void reviveDependents(const Revived& revived);
  TaskSet skippedFor(const TaskArray& array, const Revived& revived) const;

  State& state_;
  const Moment now_;
  const Counters countersBefore_;
  Changes changes_;
  std::set<JobId> touched_;
  std::map<JobId, std::uint32_t> begunRounds_;
  std::deque<Settled> settled_;
  std::deque<Revived> revived_;
  std::set<WorkerId> relieved_;  // unreachable ones that had an attempt less to deliver
};

}  // namespace parallel::scheduler::ledger
