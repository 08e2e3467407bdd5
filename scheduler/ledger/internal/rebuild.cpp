#include "scheduler/ledger/internal/rebuild.h"

#include <algorithm>
#include <tuple>

namespace parallel::scheduler::ledger {
namespace {

void addTask(State& state, const TaskRecord& row, Moment now) {
  Job& job = state.jobs.at(row.job);
  TaskArray& array = job.arrayOf(row.task);
  array.started.emplace(row.task, row);
  if (row.state != TaskState::ready) {
    ++array.active;
    job.coresInUse += array.coresEach();
  } else if (row.delay > Duration::zero()) {
    state.delays.add({row.job, row.task}, endOfDelay(now, row.delay));
  } else {
    (row.alone ? array.suspects : array.again).insert(row.task);
  }
}

void addWorker(State& state, const WorkerRecord& row) {
  state.workers[row.id].record = row;
  state.workersByKey.emplace(row.key, row.id);
  if (row.state == WorkerState::active)
    state.leases.renew(row.id, state.leaseClock.time());
}

void addAttempt(State& state, AttemptRecord row) {
  row.details.clear();
  state.workers.at(row.worker).attempts.insert(row.key.number);
  state.attempts.emplace(row.key.number, std::move(row));
}

template <class Row, class Key>
void sortBy(std::vector<Row>& rows, Key keyOf) {
  std::sort(rows.begin(), rows.end(), [&](const Row& one, const Row& other) { return keyOf(one) < keyOf(other); });
}

void addRowsOf(Kept& kept, const Job& job) {
  kept.progress.push_back(job.progress);
  for (const auto& [first, array] : job.arrays) {
    kept.arrays.push_back(array.record);
    for (const TaskState state : {TaskState::waiting, TaskState::ready, TaskState::cancelled, TaskState::skipped}) {
      for (const TaskSpan span : array.unstarted(state).spans())
        kept.ranges.push_back({job.id(), span, state});
    }
    for (const auto& [number, task] : array.started)
      kept.tasks.push_back(task);
  }
}

}  // namespace

void rebuild(State& state, const Kept& kept, Moment now) {
  state.counters = kept.counters;
  for (const KeyRecord& row : kept.keys)
    state.keys.emplace(row.key, row);
  for (const JobProgress& row : kept.progress)
    state.jobs[row.job].progress = row;
  for (const RoundRecord& row : kept.rounds)
    state.jobs.at(row.job).rounds.emplace(row.round, row);
  for (const ArrayRecord& row : kept.arrays)
    state.jobs.at(row.job).arrays.emplace(row.tasks.first, TaskArray(row));
  for (const RangeRecord& row : kept.ranges)
    state.jobs.at(row.job).arrayOf(row.tasks.first).unstarted(row.state).add(row.tasks);
  for (const TaskRecord& row : kept.tasks)
    addTask(state, row, now);
  for (const WorkerRecord& row : kept.workers)
    addWorker(state, row);
  for (const AttemptRecord& row : kept.attempts)
    addAttempt(state, row);
  for (auto& [id, job] : state.jobs) {
    for (const auto& [first, array] : job.arrays) {
      state.watch(job, array);
      state.reoffer(job, array);
    }
  }
}

Kept rowsOf(const State& state) {
  Kept kept;
  kept.counters = state.counters;
  for (const auto& [key, row] : state.keys)
    kept.keys.push_back(row);
  for (const auto& [id, job] : state.jobs) {
    for (const auto& [round, row] : job.rounds)
      kept.rounds.push_back(row);
    addRowsOf(kept, job);
  }
  for (const auto& [number, attempt] : state.attempts)
    kept.attempts.push_back(attempt);
  for (const auto& [id, worker] : state.workers)
    kept.workers.push_back(worker.record);
  sortBy(kept.progress, [](const JobProgress& row) { return row.job; });
  sortBy(kept.rounds, [](const RoundRecord& row) { return std::tuple(row.job, row.round); });
  sortBy(kept.arrays, [](const ArrayRecord& row) { return std::tuple(row.job, row.tasks.first); });
  sortBy(kept.ranges, [](const RangeRecord& row) { return std::tuple(row.job, row.tasks.last); });
  sortBy(kept.tasks, [](const TaskRecord& row) { return std::tuple(row.job, row.task); });
  sortBy(kept.attempts, [](const AttemptRecord& row) { return row.key; });
  return kept;
}

}  // namespace parallel::scheduler::ledger
