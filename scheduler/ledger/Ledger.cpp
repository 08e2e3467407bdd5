#include "scheduler/ledger/Ledger.h"

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
