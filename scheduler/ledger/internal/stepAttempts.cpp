// What happens to attempts, and through them to their tasks.
#include <utility>

#include "scheduler/ledger/internal/Step.h"

namespace parallel::scheduler::ledger {
namespace {

constexpr Ending kWorkerLost{EndReason::workerLost, 0};

// Suspects first lose their suspicion, retries come before new tasks, and new tasks go in the order of their numbers.
TaskNumber nextTaskOf(const TaskArray& array, bool alone) {
  if (alone)
    return *array.suspects.begin();
  return array.again.empty() ? array.unstarted(TaskState::ready).front() : *array.again.begin();
}

// Whether the lapse of this attempt counted as the loss of a worker that ran it.
bool lossWasCounted(const AttemptRecord& attempt) {
  return attempt.state == AttemptState::lapsed && attempt.ending == kWorkerLost;
}

}  // namespace

const AttemptRecord& Step::grant(Worker& worker, const ReadyQueue::Choice& choice, std::uint64_t sequence) {
  Job& job = state_.jobs.at(choice.turn.job);
  TaskArray& array = job.arrays.at(*job.offers.at(choice.demand).begin());
  TaskRecord& task = takeTask(job, array, nextTaskOf(array, choice.demand.alone));

  AttemptRecord attempt;
  attempt.key = {job.id(), task.task, state_.counters.nextAttempt++};
  attempt.worker = worker.record.id;
  attempt.sequence = sequence;
  attempt.round = task.round;
  attempt.alone = choice.demand.alone;
  attempt.granted = now_.wall;

  task.attempt = attempt.key.number;
  task.ending = {};
  setState({job, array, task}, TaskState::granted);
  write(task);
  write(attempt);
  worker.attempts.insert(attempt.key.number);
  return state_.attempts.emplace(attempt.key.number, std::move(attempt)).first->second;
}

// Out of what is ready, with a row of its own. The attempt before it, if it could still deliver, no longer can.
TaskRecord& Step::takeTask(Job& job, TaskArray& array, TaskNumber number) {
  const auto known = array.started.find(number);
  if (known != array.started.end()) {
    takeFromReady({job, array, known->second});
    if (const auto before = state_.attempts.find(known->second.attempt); before != state_.attempts.end())
      endAttempt(before->second, false, {EndReason::superseded, 0});
    return known->second;
  }
  takeFromRange(job, array, {number, number}, TaskState::ready);
  TaskRecord task;
  task.job = job.id();
  task.task = number;
  task.state = TaskState::ready;
  task.round = job.progress.round;
  return array.started.emplace(number, task).first->second;
}

void Step::adopt(AttemptRecord& attempt, bool isStarted) {
  const Place place = placeOf(attempt);
  const bool ranBefore = attempt.state == AttemptState::started || lossWasCounted(attempt);
  if (attempt.state == AttemptState::lapsed) {
    forgetLoss(place, attempt);
    takeFromReady(place);
    place.task.delay = Duration::zero();
    attempt.state = AttemptState::granted;
    setState(place, TaskState::granted);
    write(place.task);
    write(attempt);
  }
  if ((isStarted || ranBefore) && attempt.state == AttemptState::granted) {
    attempt.state = AttemptState::started;
    setState(place, TaskState::running);
    write(place.task);
    write(attempt);
  }
}

void Step::giveBack(AttemptRecord& attempt) {
  const Place place = placeOf(attempt);
  const AttemptKey key = attempt.key;
  dropAttempt(attempt);
  changes_.attempts[key] = std::nullopt;
  returnUncounted(place);
}

void Step::deliver(AttemptRecord& attempt, const Result& result) {
  if (attempt.state == AttemptState::lapsed)
    adopt(attempt, true);
  const Place place = placeOf(attempt);
  endAttempt(attempt, true, result.ending, result.details);
  if (result.ending.reason == EndReason::handedBack) {
    returnUncounted(place);
  } else if (result.ending.reason == EndReason::success) {
    endTask(place.task, TaskState::succeeded, result.ending);
  } else {
    place.task.alone = false;  // its worker is there to tell
    retryOrFail(place, result.ending);
  }
}

// Nobody knows whether an attempt has started that was only granted: its task is a suspect, but nothing is counted.
void Step::lapse(AttemptRecord& attempt) {
  const Place place = placeOf(attempt);
  if (attempt.state == AttemptState::granted) {
    place.task.alone = true;
    makeReady(place, Duration::zero());
  } else if (countLoss(place, attempt.alone, LossCause::unexplained)) {
    attempt.ending = kWorkerLost;
  } else {
    endAttempt(attempt, false, kWorkerLost);
    return;
  }
  attempt.state = AttemptState::lapsed;
  write(attempt);
}

void Step::lose(AttemptRecord& attempt, LossCause cause) {
  const Place place = placeOf(attempt);
  const AttemptRecord before = attempt;
  if (before.state == AttemptState::lapsed && cause == LossCause::explained)
    forgetLoss(place, attempt);
  endAttempt(attempt, false, kWorkerLost);

  if (before.state == AttemptState::granted) {
    place.task.alone = place.task.alone || cause == LossCause::unexplained;
    returnUncounted(place);
  } else if (before.state == AttemptState::started) {
    countLoss(place, before.alone, cause);
  } else if (cause == LossCause::explained) {
    if (lossWasCounted(before))
      retryOrFail(place, kWorkerLost);
    else
      returnUncounted(place);
  }
}

// False when it was one too many, and the task has failed.
bool Step::countLoss(Place place, bool ranAlone, LossCause cause) {
  auto& [job, array, task] = place;
  const TaskNumber number = task.task;
  if (cause == LossCause::unexplained)
    task.alone = true;
  if (cause == LossCause::unexplained && ranAlone && ++task.deaths >= array.record.deathsAllowed)
    endTask(task, TaskState::failed, {EndReason::tookWorkerDown, 0});
  else
    retryOrFail(place, kWorkerLost);
  return array.started.contains(number);
}

// The worker is there after all, or somebody else ended it: the task is blamed for nothing.
void Step::forgetLoss(Place place, AttemptRecord& attempt) {
  if (lossWasCounted(attempt)) {
    --place.task.retries.at(static_cast<std::size_t>(EndReason::workerLost));
    if (attempt.alone)
      --place.task.deaths;
  }
  place.task.alone = attempt.alone;
  place.task.ending = {};
  attempt.ending = {};
}

void Step::endAttempt(AttemptRecord& attempt, bool isAccepted, Ending ending, const std::string& details) {
  attempt.state = AttemptState::ended;
  attempt.accepted = isAccepted;
  attempt.ending = ending;
  attempt.ended = now_.wall;
  AttemptRecord row = attempt;
  row.details = details;
  changes_.attempts[row.key] = std::move(row);
  dropAttempt(attempt);
}

void Step::dropAttempt(const AttemptRecord& attempt) {
  const AttemptNumber number = attempt.key.number;
  if (Worker* worker = state_.findWorker(attempt.worker)) {
    worker->attempts.erase(number);
    if (worker->record.state == WorkerState::unreachable)
      relieved_.insert(attempt.worker);
  }
  state_.attempts.erase(number);
}

void Step::write(const AttemptRecord& attempt) {
  changes_.attempts[attempt.key] = attempt;
}

}  // namespace parallel::scheduler::ledger
