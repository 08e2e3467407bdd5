#include "scheduler/ledger/internal/Step.h"

#include <utility>

namespace parallel::scheduler::ledger {
namespace {

// Writes what changes in a set of unstarted tasks.
class RangeWriter final : public TaskSet::Observer {
 public:
  RangeWriter(Changes& changes, JobId job, TaskState state) : changes_(changes), job_(job), state_(state) {}

  void erased(TaskNumber last) override { changes_.ranges[{job_, last}] = std::nullopt; }
  void put(TaskSpan span) override { changes_.ranges[{job_, span.last}] = RangeRecord{job_, span, state_}; }

 private:
  Changes& changes_;
  const JobId job_;
  const TaskState state_;
};

}  // namespace

Step::Step(State& state, Moment now) : state_(state), now_(now), countersBefore_(state.counters) {
  state_.leaseClock.advance(now.running);
}

// What is settled may settle more, in any number of jobs; none of it calls itself, so that chains may be long.
Changes Step::finish() && {
  bool isSettled = false;
  while (!isSettled) {
    while (!settled_.empty()) {
      const Settled next = settled_.front();
      settled_.pop_front();
      settleTasks(next);
    }
    const auto ended = touched_;
    for (const JobId job : ended)
      settleEndOf(state_.jobs.at(job));
    isSettled = settled_.empty() && touched_.size() == ended.size();
  }
  for (const WorkerId id : relieved_) {
    Worker* worker = state_.findWorker(id);
    if (worker && worker->record.state == WorkerState::unreachable && worker->attempts.empty())
      remove(*worker);
  }
  for (const JobId id : touched_) {
    JobProgress& progress = state_.jobs.at(id).progress;
    ++progress.version;
    changes_.progress[id] = progress;
  }
  if (!(state_.counters == countersBefore_))
    changes_.counters = state_.counters;
  return std::move(changes_);
}

Job& Step::addJob(const JobProgress& progress) {
  const JobId id = progress.job;
  Job& job = state_.jobs[id];
  job.progress = progress;
  touch(job);
  return job;
}

std::uint32_t Step::beginRound(Job& job, const std::string& key) {
  const auto [place, isNew] = begunRounds_.try_emplace(job.id(), job.progress.round + 1);
  const std::uint32_t round = place->second;
  if (isNew) {
    job.progress.round = round;
    job.progress.ended.reset();
    touch(job);
    const RoundRecord row{job.id(), round, key, now_.wall};
    job.rounds.emplace(round, row);
    changes_.rounds[{job.id(), round}] = row;
  }
  return round;
}

void Step::addArray(Job& job, ArrayRecord record) {
  const TaskNumber first = record.tasks.first;
  changes_.arrays[{job.id(), first}] = record;
  TaskArray& array = job.arrays.emplace(first, TaskArray(std::move(record))).first->second;
  state_.watch(job, array);
  const TaskSpan all = array.record.tasks;
  job.count(TaskState::waiting) += all.count();
  addToRange(job, array, all, TaskState::waiting);
  for (const TaskSpan span : hopelessOf(array, TaskSet(all)).spans())
    move(job, array, span, TaskState::waiting, TaskState::skipped);
  releaseMet(job, array, all);
  touch(job);
}

void Step::deleteJob(JobId id) {
  Job& job = state_.jobs.at(id);
  state_.unqueue(job);
  state_.unwatch(job);
  state_.jobs.erase(id);
  changes_.deletedJobs.push_back(id);
}

void Step::move(Job& job, TaskArray& array, TaskSpan span, TaskState from, TaskState to) {
  takeFromRange(job, array, span, from);
  addToRange(job, array, span, to);
  job.count(from) -= span.count();
  job.count(to) += span.count();
  state_.reoffer(job, array);
  touch(job);
  if (hasEnded(to))
    settled_.push_back({job.id(), span, false});
}

void Step::endTask(TaskRecord& task, TaskState state, Ending ending) {
  Job& job = state_.jobs.at(task.job);
  TaskArray& array = job.arrayOf(task.task);
  const Place place{job, array, task};
  takeFromReady(place);
  setState(place, state);
  task.ending = ending;
  task.delay = Duration::zero();
  task.alone = false;
  write(task);
  settled_.push_back({task.job, {task.task, task.task}, state == TaskState::succeeded});
  array.started.erase(task.task);
}

void Step::endDelay(TaskKey key) {
  Job& job = state_.jobs.at(key.job);
  TaskArray& array = job.arrayOf(key.task);
  makeReady({job, array, array.started.at(key.task)}, Duration::zero());
}

// --- a task that has started ---

Step::Place Step::placeOf(const AttemptRecord& attempt) {
  Job& job = state_.jobs.at(attempt.key.job);
  TaskArray& array = job.arrayOf(attempt.key.task);
  return {job, array, array.started.at(attempt.key.task)};
}

void Step::addToRange(Job& job, TaskArray& array, TaskSpan span, TaskState state) {
  RangeWriter writer(changes_, job.id(), state);
  array.unstarted(state).add(span, &writer);
}

void Step::takeFromRange(Job& job, TaskArray& array, TaskSpan span, TaskState state) {
  RangeWriter writer(changes_, job.id(), state);
  array.unstarted(state).remove(span, &writer);
}

void Step::write(const TaskRecord& task) {
  changes_.tasks[{task.job, task.task}] = task;
}

// Keeps the counts, and what the job has in use.
void Step::setState(Place place, TaskState state) {
  const auto isActive = [](TaskState any) { return any == TaskState::granted || any == TaskState::running; };
  auto& [job, array, task] = place;
  --job.count(task.state);
  ++job.count(state);
  if (isActive(state) && !isActive(task.state)) {
    ++array.active;
    job.coresInUse += array.coresEach();
  } else if (!isActive(state) && isActive(task.state)) {
    --array.active;
    job.coresInUse -= array.coresEach();
  }
  task.state = state;
  touch(job);
  state_.reoffer(job, array);
}

void Step::makeReady(Place place, Duration delay) {
  auto& [job, array, task] = place;
  takeFromReady(place);
  task.delay = delay;
  if (delay > Duration::zero())
    state_.delays.add({task.job, task.task}, endOfDelay(now_, delay));
  else
    (task.alone ? array.suspects : array.again).insert(task.task);
  setState(place, TaskState::ready);
  write(task);
}

void Step::takeFromReady(Place place) {
  auto& [job, array, task] = place;
  array.again.erase(task.task);
  array.suspects.erase(task.task);
  state_.delays.drop({task.job, task.task});
}

// As if the attempt had not been. A task that nothing is remembered of is part of a range again.
void Step::returnUncounted(Place place) {
  auto& [job, array, task] = place;
  task.ending = {};
  const bool isBlank = task.retries == RetryCounts{} && task.deaths == 0 && !task.alone;
  if (!isBlank) {
    makeReady(place, Duration::zero());
    return;
  }
  const TaskNumber number = task.task;
  takeFromReady(place);
  setState(place, TaskState::ready);
  array.started.erase(number);
  changes_.tasks[{job.id(), number}] = std::nullopt;
  addToRange(job, array, {number, number}, TaskState::ready);
  state_.reoffer(job, array);
}

void Step::retryOrFail(Place place, Ending ending) {
  auto& [job, array, task] = place;
  const RetryRule* rule = array.record.retries.find(ending);
  std::uint32_t& retries = task.retries.at(static_cast<std::size_t>(ending.reason));
  if (!rule || retries >= rule->limit) {
    endTask(task, TaskState::failed, ending);
    return;
  }
  if (retries < RetryRule::kNoLimit - 1)
    ++retries;
  task.ending = ending;
  makeReady(place, rule->delayBefore(retries));
}

// --- workers ---

Worker& Step::admit(const Join& event) {
  const auto known = state_.workersByKey.find(event.key);
  const bool isNew = known == state_.workersByKey.end();
  const WorkerId id = isNew ? state_.counters.nextWorker : known->second;
  if (isNew) {
    state_.counters.nextWorker = WorkerId{static_cast<std::uint64_t>(id) + 1};
    state_.workersByKey.emplace(event.key, id);
  }
  Worker& worker = state_.workers[id];
  worker.record.id = id;
  worker.record.key = event.key;
  worker.record.name = event.name;
  worker.record.resources = event.resources;
  write(worker);
  return worker;
}

void Step::lapse(Worker& worker) {
  worker.record.state = WorkerState::unreachable;
  write(worker);
  relieved_.insert(worker.record.id);
  const auto attempts = worker.attempts;
  for (const AttemptNumber number : attempts)
    lapse(state_.attempts.at(number));
}

void Step::heardFrom(Worker& worker) {
  state_.leases.renew(worker.record.id, state_.leaseClock.time());
  if (worker.record.state == WorkerState::active)
    return;
  worker.record.state = WorkerState::active;
  write(worker);
}

void Step::write(const Worker& worker) {
  changes_.workers[worker.record.id] = worker.record;
}

void Step::remove(Worker& worker) {
  worker.record.state = WorkerState::gone;
  write(worker);
  state_.leases.drop(worker.record.id);
  state_.workersByKey.erase(worker.record.key);
  state_.workers.erase(worker.record.id);
}

}  // namespace parallel::scheduler::ledger
