// What workers do: join, take, renew, finish.
#include <algorithm>
#include <unordered_set>
#include <utility>

#include "scheduler/ledger/Ledger.h"
#include "scheduler/ledger/internal/Step.h"

namespace parallel::scheduler::ledger {
namespace {

bool mayDeliver(EndReason reason) {
  switch (reason) {
    case EndReason::success:
    case EndReason::exitCode:
    case EndReason::signal:
    case EndReason::outOfMemory:
    case EndReason::timeLimit:
    case EndReason::notStarted:
    case EndReason::handedBack:
      return true;
    default:
      return false;
  }
}

// What the worker has is its own; the others of what it says it has are to be stopped.
std::vector<AttemptKey> adoptHeld(State& state, Step& step, const Worker& worker,
                                  const std::vector<HeldAttempt>& held) {
  std::vector<AttemptKey> stop;
  for (const auto& [key, isStarted] : held) {
    if (AttemptRecord* attempt = state.findAttempt(key, worker.record.id))
      step.adopt(*attempt, isStarted);
    else
      stop.push_back(key);
  }
  return stop;
}

// What the worker was given and does not have never arrived, or was lost there.
void takeBackUnheld(State& state, Step& step, const Worker& worker, const std::vector<HeldAttempt>& held) {
  std::unordered_set<AttemptNumber> kept;
  for (const HeldAttempt& attempt : held)
    kept.insert(attempt.attempt.number);
  const auto given = worker.attempts;
  for (const AttemptNumber number : given) {
    if (kept.contains(number))
      continue;
    AttemptRecord& attempt = state.attempts.at(number);
    if (attempt.state == AttemptState::granted)
      step.giveBack(attempt);
    else
      step.lose(attempt, LossCause::explained);
  }
}

Grant grantOf(const State& state, const AttemptRecord& attempt) {
  const TaskArray& array = state.findJob(attempt.key.job)->arrayOf(attempt.key.task);
  Grant grant;
  grant.attempt = attempt.key;
  grant.round = attempt.round;
  grant.arrayFirst = array.first();
  grant.alone = attempt.alone;
  // Otherwise nobody knows, once the worker is lost, whether it ran: it might have taken the worker down, or run twice.
  grant.reportStart = attempt.alone || array.record.retries.workerLost.limit == 0;
  return grant;
}

// What the worker was granted by the take of this number, and still has.
std::vector<Grant> grantsOf(const State& state, const Worker& worker, std::uint64_t sequence) {
  std::vector<Grant> grants;
  for (const AttemptNumber number : worker.attempts) {
    const AttemptRecord& attempt = state.attempts.at(number);
    if (attempt.sequence == sequence)
      grants.push_back(grantOf(state, attempt));
  }
  return grants;
}

std::vector<Grant> grantNew(State& state, Step& step, Worker& worker, const Take& event) {
  std::vector<Grant> grants;
  Resources room = event.room;
  while (grants.size() < event.limit) {
    const auto choice = state.nextFor(worker, room);
    if (!choice)
      break;
    room.subtract(choice->demand.needs);
    grants.push_back(grantOf(state, step.grant(worker, *choice, event.sequence)));
  }
  if (!grants.empty()) {
    worker.record.sequence = event.sequence;
    step.write(worker);
  }
  return grants;
}

// The first verdict on an attempt that is no longer in memory; this very event may have given it.
Verdict firstVerdict(const State& state, Step& step, const AttemptKey& key, WorkerId worker) {
  const auto& changed = step.changes().attempts;
  const auto now = changed.find(key);
  const std::optional<AttemptRecord> row = now != changed.end() ? now->second : state.archive.attempt(key);
  if (!row || row->worker != worker)
    return {key, false, {}};
  return {key, row->accepted, row->ending};
}

Verdict deliver(State& state, Step& step, const Result& result, WorkerId worker) {
  AttemptRecord* attempt = state.findAttempt(result.attempt, worker);
  if (!attempt)
    return firstVerdict(state, step, result.attempt, worker);
  if (!mayDeliver(result.ending.reason))
    return {result.attempt, false, {}};
  step.deliver(*attempt, result);
  return {result.attempt, true, result.ending};
}

}  // namespace

Decision<Joined> Ledger::join(const Join& event, Moment now) {
  Step step(*state_, now);
  Worker& worker = step.admit(event);
  step.heardFrom(worker);
  auto stop = adoptHeld(*state_, step, worker, event.held);
  if (event.sequence >= worker.record.sequence)
    takeBackUnheld(*state_, step, worker, event.held);
  return {Joined{worker.record.id, std::move(stop)}, std::move(step).finish()};
}

Decision<Taken> Ledger::take(const Take& event, Moment now) {
  Worker* worker = state_->findWorker(event.worker);
  if (!worker)
    return {Refusal::unknownWorker};
  if (event.sequence < worker->record.sequence || event.sequence == 0)
    return {Refusal::staleTake};
  Step step(*state_, now);
  step.heardFrom(*worker);
  Taken answer;
  answer.stop = adoptHeld(*state_, step, *worker, event.held);
  if (event.sequence == worker->record.sequence) {
    answer.grants = grantsOf(*state_, *worker, event.sequence);
  } else {
    takeBackUnheld(*state_, step, *worker, event.held);
    answer.grants = grantNew(*state_, step, *worker, event);
  }
  return {std::move(answer), std::move(step).finish()};
}

Decision<Renewed> Ledger::renew(const Renew& event, Moment now) {
  Worker* worker = state_->findWorker(event.worker);
  if (!worker)
    return {Refusal::unknownWorker};
  Step step(*state_, now);
  step.heardFrom(*worker);
  auto stop = adoptHeld(*state_, step, *worker, event.held);
  return {Renewed{std::move(stop)}, std::move(step).finish()};
}

// A worker that is gone may ask too, for the verdicts that it was not told.
Decision<Finished> Ledger::finish(const Finish& event, Moment now) {
  Step step(*state_, now);
  if (Worker* worker = state_->findWorker(event.worker))
    step.heardFrom(*worker);
  Finished answer;
  for (const Result& result : event.results)
    answer.verdicts.push_back(deliver(*state_, step, result, event.worker));
  return {std::move(answer), std::move(step).finish()};
}

}  // namespace parallel::scheduler::ledger
