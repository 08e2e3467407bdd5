// What clients do with jobs that are there.
#include <algorithm>
#include <utility>

#include "scheduler/ledger/Ledger.h"
#include "scheduler/ledger/internal/Step.h"

namespace parallel::scheduler::ledger {
namespace {

constexpr Ending kCancelled{EndReason::cancelled, 0};

TaskSet partsOf(const TaskArray& array, const std::optional<TaskSet>& tasks) {
  const TaskSet all(array.record.tasks);
  return tasks ? tasks->intersection(all) : all;
}

// The tasks of one array that a client cancels.
class Cancellation {
 public:
  Cancellation(State& state, Step& step, Cancelled& answer) : state_(state), step_(step), answer_(answer) {}

  void cancel(Job& job, TaskArray& array, TaskSpan span) {
    const std::uint64_t stoppedBefore = answer_.stopped;
    for (const TaskState state : {TaskState::waiting, TaskState::ready}) {
      for (const TaskSpan part : array.unstarted(state).within(span)) {
        step_.move(job, array, part, state, TaskState::cancelled);
        answer_.stopped += part.count();
      }
    }
    auto task = array.started.lower_bound(span.first);
    while (task != array.started.end() && task->first <= span.last)
      cancelStarted((task++)->second);
    answer_.alreadyEnded += span.count() - (answer_.stopped - stoppedBefore);
  }

 private:
  void cancelStarted(TaskRecord& task) {
    if (const auto attempt = state_.attempts.find(task.attempt); attempt != state_.attempts.end()) {
      answer_.running.push_back({attempt->second.key, attempt->second.worker});
      step_.endAttempt(attempt->second, false, kCancelled);
    }
    step_.endTask(task, TaskState::cancelled, kCancelled);
    ++answer_.stopped;
  }

  State& state_;
  Step& step_;
  Cancelled& answer_;
};

}  // namespace

Decision<Cancelled> Ledger::cancel(const Cancel& event, Moment now) {
  Job* job = state_->findJob(event.job);
  if (!job)
    return {Refusal::unknownJob};
  Step step(*state_, now);
  Cancelled answer;
  Cancellation cancellation(*state_, step, answer);
  if (!event.tasks && job->progress.open) {
    job->progress.open = false;
    step.touch(*job);
  }
  for (auto& [first, array] : job->arrays) {
    for (const TaskSpan span : partsOf(array, event.tasks).spans())
      cancellation.cancel(*job, array, span);
  }
  return {std::move(answer), std::move(step).finish()};
}

Decision<Retried> Ledger::retry(const Retry& event, Moment now) {
  Job* job = state_->findJob(event.job);
  if (!job)
    return {Refusal::unknownJob};
  if (const auto known = job->findRound(event.key))
    return {Retried{*known, true}};
  Step step(*state_, now);
  if (!step.revive(*job, event.tasks, event.key))
    return {Refusal::nothingToRetry};
  Changes changes = std::move(step).finish();
  return {Retried{job->progress.round, false}, std::move(changes)};
}

Decision<Done> Ledger::hold(JobId id, Moment now) {
  return change(id, now, [](JobProgress& progress) { return !std::exchange(progress.held, true); });
}

Decision<Done> Ledger::release(JobId id, Moment now) {
  return change(id, now, [](JobProgress& progress) { return std::exchange(progress.held, false); });
}

Decision<Done> Ledger::setPriority(JobId id, std::int32_t priority, Moment now) {
  return change(id, now,
                [priority](JobProgress& progress) { return std::exchange(progress.priority, priority) != priority; });
}

Decision<Done> Ledger::closeJob(JobId id, Moment now) {
  return change(id, now, [](JobProgress& progress) { return std::exchange(progress.open, false); });
}

// `apply` says whether it changed anything: what changes nothing is no new version.
template <class Apply>
Decision<Done> Ledger::change(JobId id, Moment now, Apply apply) {
  Job* job = state_->findJob(id);
  if (!job)
    return {Refusal::unknownJob};
  Step step(*state_, now);
  if (apply(job->progress)) {
    step.touch(*job);
    state_->requeue(*job);
  }
  Changes changes = std::move(step).finish();
  return {Done{job->progress.version}, std::move(changes)};
}

Decision<Done> Ledger::deleteJob(JobId id, Moment now) {
  const Job* job = state_->findJob(id);
  if (!job)
    return {Refusal::unknownJob};
  if (!job->progress.ended)
    return {Refusal::jobUnfinished};
  const Done answer{job->progress.version};
  Step step(*state_, now);
  step.deleteJob(id);
  return {answer, std::move(step).finish()};
}

Decision<Pruned> Ledger::prune(WallTime endedBefore, Moment now) {
  Pruned answer;
  for (const auto& [id, job] : state_->jobs) {
    if (job.progress.ended && *job.progress.ended < endedBefore)
      answer.jobs.push_back(id);
  }
  std::sort(answer.jobs.begin(), answer.jobs.end());
  Step step(*state_, now);
  for (const JobId id : answer.jobs)
    step.deleteJob(id);
  return {std::move(answer), std::move(step).finish()};
}

}  // namespace parallel::scheduler::ledger
