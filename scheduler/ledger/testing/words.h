// Words that the ledger's tests share.
#pragma once

#include <cstdint>

#include "scheduler/ledger/Kept.h"

namespace parallel::scheduler::ledger::testing {

constexpr Ending kSuccess{EndReason::success, 0};

inline Ending exitCode(std::int32_t code) {
  return {EndReason::exitCode, code};
}

// The rows as a ledger has them in memory.
inline Kept withoutDetails(Kept kept) {
  for (ArrayRecord& row : kept.arrays)
    row.details.clear();
  for (AttemptRecord& row : kept.attempts)
    row.details.clear();
  return kept;
}

}  // namespace parallel::scheduler::ledger::testing
