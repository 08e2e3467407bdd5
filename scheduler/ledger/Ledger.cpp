#include "scheduler/ledger/Ledger.h"

#include <algorithm>

#include "scheduler/ledger/internal/State.h"
#include "scheduler/ledger/internal/rebuild.h"

namespace parallel::scheduler::ledger {

Ledger::Ledger(const Archive& archive, const Kept& kept, Moment now) : state_(std::make_unique<State>(archive, now)) {
  rebuild(*state_, kept, now);
}

Ledger::~Ledger() = default;

std::optional<JobProgress> Ledger::progress(JobId id) const {
  const Job* job = state_->findJob(id);
  return job ? std::optional(job->progress) : std::nullopt;
}

bool Ledger::knowsKey(const std::string& key) const {
  return state_->keys.contains(key);
}

std::optional<WorkerId> Ledger::workerOf(const AttemptKey& attempt) const {
  const auto found = state_->attempts.find(attempt.number);
  return found != state_->attempts.end() && found->second.key == attempt ? std::optional(found->second.worker)
                                                                         : std::nullopt;
}

std::vector<WorkerView> Ledger::workers() const {
  std::vector<WorkerView> views;
  for (const auto& [id, worker] : state_->workers)
    views.push_back({worker.record, worker.attempts.size()});
  return views;
}

bool Ledger::wantsWorker() const {
  return !state_->queue.empty() && std::none_of(state_->workers.begin(), state_->workers.end(),
                                                [](const auto& entry) { return State::isGiven(entry.second); });
}

bool Ledger::hasWorkFor(WorkerId id, const Resources& room) const {
  const Worker* worker = state_->findWorker(id);
  return worker && state_->nextFor(*worker, room);
}

std::optional<Duration> Ledger::nextDelayEnd() const {
  return state_->delays.nextEnd();
}

Kept Ledger::memory() const {
  return rowsOf(*state_);
}

}  // namespace parallel::scheduler::ledger
