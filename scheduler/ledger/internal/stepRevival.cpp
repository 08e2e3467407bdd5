// A new round for tasks that ended without success.
#include <utility>

#include "scheduler/ledger/internal/Step.h"

namespace parallel::scheduler::ledger {
namespace {

TaskSet parts(const TaskSet& set, TaskSpan bounds) {
  TaskSet within;
  for (const TaskSpan part : set.within(bounds))
    within.add(part);
  return within;
}

}  // namespace

// Arrays in order: what an array waits for within the job stands before it, and is revived first.
bool Step::revive(Job& job, const std::optional<TaskSet>& tasks, const std::string& roundKey) {
  bool areAny = false;
  for (auto& [first, array] : job.arrays) {
    const TaskSpan all = array.record.tasks;
    for (const TaskState state : {TaskState::failed, TaskState::cancelled}) {
      TaskSet ended;
      if (job.count(state) > 0)
        ended.add(state_.archive.endedTasks(job.id(), all, state));
      if (state == TaskState::cancelled)
        ended.add(array.unstarted(state));
      areAny |= reviveIn(job, array, tasks ? ended.intersection(*tasks) : std::move(ended), state, roundKey);
    }
  }
  while (!revived_.empty()) {
    const Revived next = revived_.front();
    revived_.pop_front();
    reviveDependents(next);
  }
  return areAny;
}

// Tasks of one state.
bool Step::reviveIn(Job& job, TaskArray& array, TaskSet tasks, TaskState state, const std::string& roundKey) {
  tasks.remove(hopelessOf(array, tasks));
  if (tasks.empty())
    return false;
  if (job.progress.ended)
    revived_.push_back({job.id(), std::nullopt});
  beginRound(job, roundKey);
  for (const TaskSpan span : tasks.spans()) {
    reviveSpan(job, array, span, state);
    releaseMet(job, array, span);
    revived_.push_back({job.id(), span});
  }
  return true;
}

// Those that had started are unstarted again; what is known of their attempts stays in the books.
void Step::reviveSpan(Job& job, TaskArray& array, TaskSpan span, TaskState state) {
  TaskSet started(span);
  if (state != TaskState::failed) {
    for (const TaskSpan part : array.unstarted(state).within(span)) {
      started.remove(part);
      move(job, array, part, state, TaskState::waiting);
    }
  }
  for (const TaskSpan part : started.spans()) {
    changes_.droppedTasks.push_back({job.id(), part});
    job.count(state) -= part.count();
    job.count(TaskState::waiting) += part.count();
    addToRange(job, array, part, TaskState::waiting);
  }
}

void Step::reviveDependents(const Revived& revived) {
  const Job& dependee = state_.jobs.at(revived.job);
  const auto keys = revived.tasks ? dependee.dependents.of(*revived.tasks) : dependee.dependents.ofWholeJob();
  for (const TaskKey& key : keys) {
    Job& job = state_.jobs.at(key.job);
    TaskArray& array = job.arrays.at(key.task);
    reviveIn(job, array, skippedFor(array, revived), TaskState::skipped, "");
  }
}

// The skipped tasks of the array that waited for what is revived.
TaskSet Step::skippedFor(const TaskArray& array, const Revived& revived) const {
  const TaskSet& skipped = array.unstarted(TaskState::skipped);
  if (!revived.tasks)
    return skipped;
  TaskSet found;
  for (const Dependency& dependency : array.record.dependencies) {
    if (dependency.job != revived.job || dependency.kind == Dependency::Kind::wholeJob)
      continue;
    if (const auto affected = array.dependents(dependency, *revived.tasks))
      found.add(parts(skipped, *affected));
  }
  return found;
}

}  // namespace parallel::scheduler::ledger
