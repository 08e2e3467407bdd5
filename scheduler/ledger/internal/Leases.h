// How long each worker counts as reachable without a word from it.
#pragma once

#include <list>
#include <unordered_map>
#include <utility>
#include <vector>

#include "scheduler/ledger/names.h"

namespace parallel::scheduler::ledger {

// Times are those of a LeaseClock. All leases are equally long, so that the one renewed last ends last: each operation
// takes the same time, however many there are.
class Leases {
 public:
  static constexpr Duration kLength = std::chrono::minutes(1);

  // Begins a lease, or renews it.
  void renew(WorkerId worker, Duration now);
  void drop(WorkerId worker);
  // Those that have lapsed; they are dropped.
  std::vector<WorkerId> takeLapsed(Duration now);

 private:
  struct Lease {
    WorkerId worker{};
    Duration end{};
  };

  std::list<Lease> byEnd_;
  std::unordered_map<WorkerId, std::list<Lease>::iterator> byWorker_;
};

}  // namespace parallel::scheduler::ledger
