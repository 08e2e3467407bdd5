#include "scheduler/ledger/internal/State.h"

#include <algorithm>
#include <utility>

namespace parallel::scheduler::ledger {
namespace {

template <class Map, class Key>
auto* valueOrNull(Map& map, const Key& key) {
  const auto place = map.find(key);
  return place == map.end() ? nullptr : &place->second;
}

}  // namespace

Job* State::findJob(JobId id) {
  return valueOrNull(jobs, id);
}

const Job* State::findJob(JobId id) const {
  return valueOrNull(jobs, id);
}

Worker* State::findWorker(WorkerId id) {
  return valueOrNull(workers, id);
}

AttemptRecord* State::findAttempt(const AttemptKey& key, WorkerId worker) {
  AttemptRecord* attempt = valueOrNull(attempts, key.number);
  return attempt && attempt->key == key && attempt->worker == worker ? attempt : nullptr;
}

void State::watch(const Job& job, const TaskArray& array) {
  for (const Dependency& dependency : array.record.dependencies) {
    Job* dependee = findJob(dependency.job);
    if (!dependee)
      continue;  // it was deleted, and so it had ended
    if (dependency.kind == Dependency::Kind::wholeJob)
      dependee->dependents.addWholeJob({job.id(), array.first()});
    else
      dependee->dependents.add(array.dependees(dependency, array.record.tasks), {job.id(), array.first()});
  }
}

void State::unwatch(const Job& job) {
  for (const auto& [first, array] : job.arrays) {
    for (const Dependency& dependency : array.record.dependencies) {
      if (Job* dependee = findJob(dependency.job))
        dependee->dependents.dropJob(job.id());
    }
  }
}

// Room may be more than the worker has: then it takes ahead of need. No task of which it could never run one goes there.
// A suspect runs on a worker that has nothing else, and nothing else is granted beside it.
std::optional<ReadyQueue::Choice> State::nextFor(const Worker& worker, const Resources& room) const {
  if (!isGiven(worker))
    return std::nullopt;
  const Resources most = room.upTo(worker.record.resources);
  if (worker.attempts.empty())
    return queue.next(most, true);
  const bool runsSuspect = attempts.at(*worker.attempts.begin()).alone;
  return runsSuspect || isKeptFree(worker) ? std::nullopt : queue.next(most, false);
}

bool State::isGiven(const Worker& worker) {
  return worker.record.state == WorkerState::active && !worker.record.draining;
}

// While a suspect waits, the worker that it fits and that has the fewest attempts is given nothing until it has none:
// otherwise workers that are never idle would keep the suspect waiting for ever.
bool State::isKeptFree(const Worker& worker) const {
  const auto suspect = queue.nextAlone(worker.record.resources);
  if (!suspect)
    return false;
  const auto comesBefore = [&](const auto& entry) {
    const Worker& other = entry.second;
    return isGiven(other) && other.record.resources.covers(suspect->demand.needs) &&
           std::pair(other.attempts.size(), other.record.id) < std::pair(worker.attempts.size(), worker.record.id);
  };
  return std::none_of(workers.begin(), workers.end(), comesBefore);
}

void State::reoffer(Job& job, const TaskArray& array) {
  for (const bool alone : {false, true}) {
    const Demand demand{array.record.needs, alone};
    if (array.offers(alone)) {
      job.offers[demand].insert(array.first());
    } else if (const auto place = job.offers.find(demand); place != job.offers.end()) {
      place->second.erase(array.first());
      if (place->second.empty())
        job.offers.erase(place);
    }
  }
  requeue(job);
}

void State::requeue(Job& job) {
  unqueue(job);
  if (job.progress.held)
    return;
  job.turn = {job.progress.priority, job.coresInUse, job.id()};
  for (const auto& [demand, arrays] : job.offers) {
    queue.insert(demand, job.turn);
    job.queuedFor.push_back(demand);
  }
}

void State::unqueue(Job& job) {
  for (const Demand& demand : job.queuedFor)
    queue.erase(demand, job.turn);
  job.queuedFor.clear();
}

}  // namespace parallel::scheduler::ledger
