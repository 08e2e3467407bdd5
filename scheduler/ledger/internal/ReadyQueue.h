// Which job's turn it is.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>

#include "scheduler/ledger/Resources.h"
#include "scheduler/ledger/names.h"

namespace parallel::scheduler::ledger {

// What a task wants of a worker. Tasks of the same demand are granted in turn, whichever job they are of.
struct Demand {
  Resources needs;
  bool alone = false;

  auto operator<=>(const Demand&) const = default;
};

// A job's place in the queues: the greater priority first, then the one that uses the fewest cores, then the older.
// So a job of ten tasks has its share beside one of a million.
struct Turn {
  std::int32_t priority = 0;
  std::uint64_t coresInUse = 0;
  JobId job{};

  bool operator==(const Turn&) const = default;
  bool operator<(const Turn& other) const;
};

// One queue of jobs for each demand. Taking the next costs one step for each demand that is queued, not for each job.
class ReadyQueue {
 public:
  struct Choice {
    Demand demand;
    Turn turn;
  };

  void insert(const Demand& demand, const Turn& turn);
  void erase(const Demand& demand, const Turn& turn);

  bool empty() const noexcept { return queues_.empty(); }
  // The first turn among the demands that fit the room; those that want a worker for themselves only if `alone`.
  std::optional<Choice> next(const Resources& room, bool alone) const;
  // The first turn among those that want a worker for themselves and would fit one of these resources.
  std::optional<Choice> nextAlone(const Resources& worker) const;

 private:
  std::map<Demand, std::set<Turn>> queues_;  // none of them empty
};

}  // namespace parallel::scheduler::ledger
