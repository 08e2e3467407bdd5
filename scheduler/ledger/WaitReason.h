// Why a task does not run yet.
#pragma once

#include <cstdint>
#include <optional>

#include "scheduler/ledger/records.h"

namespace parallel::scheduler::ledger {

struct WaitReason {
  enum class Kind : std::uint8_t {
    dependency,  // `dependency` has not succeeded yet
    held,        // the job is held
    delay,       // before it is retried
    atOnce,      // as many tasks of the array as may run at once do
    noWorker,    // there is no worker
    needs,       // no worker has what it needs
    alone,       // a worker was lost with it: it waits for one that runs nothing else
    turn,        // others go first
  };

  Kind kind = Kind::turn;
  std::optional<Dependency> dependency{};

  bool operator==(const WaitReason&) const = default;
};

}  // namespace parallel::scheduler::ledger
