// Why tasks wait.
#include <algorithm>

#include "scheduler/ledger/Ledger.h"
#include "scheduler/ledger/internal/State.h"

namespace parallel::scheduler::ledger {
namespace {

using Kind = WaitReason::Kind;

bool isOpen(const State& state, const TaskArray& array, const Dependency& dependency, TaskNumber task) {
  const Job* dependee = state.findJob(dependency.job);
  if (!dependee)
    return false;
  if (dependency.kind == Dependency::Kind::wholeJob)
    return !dependee->progress.ended;
  return dependee->isUnended(array.dependees(dependency, {task, task}).first);
}

WaitReason openDependency(const State& state, const TaskArray& array, TaskNumber task) {
  for (const Dependency& dependency : array.record.dependencies) {
    if (isOpen(state, array, dependency, task))
      return {Kind::dependency, dependency};
  }
  return {};
}

// Of a task that is ready.
Kind whyNotGranted(const State& state, const Job& job, const TaskArray& array, TaskNumber task) {
  const auto fits = [&array](const auto& entry) { return entry.second.record.resources.covers(array.record.needs); };
  if (job.progress.held)
    return Kind::held;
  if (state.delays.contains({job.id(), task}))
    return Kind::delay;
  if (array.record.atOnce != 0 && array.active >= array.record.atOnce)
    return Kind::atOnce;
  if (state.workers.empty())
    return Kind::noWorker;
  if (std::none_of(state.workers.begin(), state.workers.end(), fits))
    return Kind::needs;
  return array.suspects.contains(task) ? Kind::alone : Kind::turn;
}

}  // namespace

std::optional<WaitReason> Ledger::whyWaiting(JobId id, TaskNumber task) const {
  const Job* job = state_->findJob(id);
  if (!job || task >= job->taskCount())
    return std::nullopt;
  const TaskArray& array = job->arrayOf(task);
  if (array.unstarted(TaskState::waiting).contains(task))
    return openDependency(*state_, array, task);
  const auto started = array.started.find(task);
  const bool isReady = started != array.started.end() ? started->second.state == TaskState::ready
                                                      : array.unstarted(TaskState::ready).contains(task);
  return isReady ? std::optional(WaitReason{whyNotGranted(*state_, *job, array, task), std::nullopt}) : std::nullopt;
}

}  // namespace parallel::scheduler::ledger
