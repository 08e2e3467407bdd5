// What the end of tasks means to those that wait for them.
//
// A task waits only for tasks that have not ended or have succeeded: with the first that ends otherwise it is skipped.
#include "scheduler/ledger/internal/Step.h"

namespace parallel::scheduler::ledger {

void Step::settleTasks(const Settled& settled) {
  for (const TaskKey& key : state_.jobs.at(settled.job).dependents.of(settled.tasks)) {
    Job& job = state_.jobs.at(key.job);
    TaskArray& array = job.arrays.at(key.task);
    for (const Dependency& dependency : array.record.dependencies) {
      if (dependency.job != settled.job || dependency.kind == Dependency::Kind::wholeJob)
        continue;
      if (const auto affected = array.dependents(dependency, settled.tasks))
        settleArray(job, array, *affected, settled.haveSucceeded);
    }
  }
}

void Step::settleEndOf(Job& job) {
  if (job.progress.ended || job.progress.open || job.unendedCount() > 0)
    return;
  job.progress.ended = now_.wall;
  for (const TaskKey& key : job.dependents.ofWholeJob()) {
    Job& dependent = state_.jobs.at(key.job);
    TaskArray& array = dependent.arrays.at(key.task);
    settleArray(dependent, array, array.record.tasks, job.hasOnlySuccesses());
  }
}

void Step::settleArray(Job& job, TaskArray& array, TaskSpan tasks, bool haveSucceeded) {
  if (haveSucceeded) {
    releaseMet(job, array, tasks);
    return;
  }
  for (const TaskSpan part : array.unstarted(TaskState::waiting).within(tasks))
    move(job, array, part, TaskState::waiting, TaskState::skipped);
}

// Those of these tasks that wait for nothing more become ready.
void Step::releaseMet(Job& job, TaskArray& array, TaskSpan tasks) {
  TaskSet met;
  for (const TaskSpan part : array.unstarted(TaskState::waiting).within(tasks))
    met.add(part);
  for (const Dependency& dependency : array.record.dependencies)
    met.remove(unmetOf(array, dependency, met));
  for (const TaskSpan part : met.spans())
    move(job, array, part, TaskState::waiting, TaskState::ready);
}

// Those of these tasks for which the dependency is still open.
TaskSet Step::unmetOf(const TaskArray& array, const Dependency& dependency, const TaskSet& tasks) const {
  const Job* dependee = state_.findJob(dependency.job);
  if (!dependee)
    return {};  // it was deleted, and so it had ended
  if (dependency.kind == Dependency::Kind::wholeJob)
    return dependee->progress.ended ? TaskSet() : tasks;
  TaskSet unmet;
  for (const TaskSpan part : tasks.spans()) {
    for (const TaskSpan open : dependee->unendedWithin(array.dependees(dependency, part)).spans())
      unmet.add(*array.dependents(dependency, open));
  }
  return unmet;
}

TaskSet Step::hopelessOf(const TaskArray& array, const TaskSet& tasks) const {
  TaskSet hopeless;
  for (const Dependency& dependency : array.record.dependencies)
    hopeless.add(hopelessOf(array, dependency, tasks));
  return hopeless;
}

// Those of these tasks for which the dependency has failed. Nothing is known of a deleted job: it did not help.
TaskSet Step::hopelessOf(const TaskArray& array, const Dependency& dependency, const TaskSet& tasks) const {
  Job* dependee = state_.findJob(dependency.job);
  if (!dependee)
    return tasks;
  if (dependency.kind == Dependency::Kind::wholeJob)
    return dependee->progress.ended && !dependee->hasOnlySuccesses() ? tasks : TaskSet();
  TaskSet hopeless;
  for (const TaskSpan part : tasks.spans()) {
    for (const TaskSpan bad : unsuccessfulOf(*dependee, array.dependees(dependency, part)).spans())
      hopeless.add(*array.dependents(dependency, bad));
  }
  return hopeless;
}

// The tasks that ended and did not succeed. The archive does not know of those that this event revived.
TaskSet Step::unsuccessfulOf(Job& job, TaskSpan bounds) const {
  TaskSet bad;
  for (const TaskState state : {TaskState::failed, TaskState::cancelled}) {
    if (job.count(state) > 0)
      bad.add(state_.archive.endedTasks(job.id(), bounds, state));
  }
  bad.remove(job.unendedWithin(bounds));
  for (const TaskArray* array : job.arraysWithin(bounds)) {
    for (const TaskState state : {TaskState::cancelled, TaskState::skipped}) {
      for (const TaskSpan part : array->unstarted(state).within(bounds))
        bad.add(part);
    }
  }
  return bad;
}

}  // namespace parallel::scheduler::ledger
