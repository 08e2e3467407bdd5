#include "scheduler/ledger/internal/Leases.h"

namespace parallel::scheduler::ledger {

void Leases::renew(WorkerId worker, Duration now) {
  drop(worker);
  byWorker_[worker] = byEnd_.insert(byEnd_.end(), {worker, now + kLength});
}

void Leases::drop(WorkerId worker) {
  const auto place = byWorker_.find(worker);
  if (place == byWorker_.end())
    return;
  byEnd_.erase(place->second);
  byWorker_.erase(place);
}

std::vector<WorkerId> Leases::takeLapsed(Duration now) {
  std::vector<WorkerId> lapsed;
  while (!byEnd_.empty() && byEnd_.front().end <= now) {
    lapsed.push_back(byEnd_.front().worker);
    drop(lapsed.back());
  }
  return lapsed;
}

}  // namespace parallel::scheduler::ledger
