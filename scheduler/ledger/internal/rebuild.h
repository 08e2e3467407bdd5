// A ledger's memory out of the rows that were kept, and back.
#pragma once

#include "scheduler/ledger/Kept.h"
#include "scheduler/ledger/internal/State.h"

namespace parallel::scheduler::ledger {

// Into an empty state. Leases and delays begin now.
void rebuild(State& state, const Kept& kept, Moment now);

// In the order of their keys.
Kept rowsOf(const State& state);

}  // namespace parallel::scheduler::ledger
