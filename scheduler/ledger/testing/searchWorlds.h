// All that a small world may become.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "scheduler/ledger/clientEvents.h"

namespace parallel::scheduler::ledger::testing {

struct Found {
  std::size_t states = 0;
  std::size_t events = 0;
  std::string violation;  // what did not hold, and the events that led there, the last one first
};

// Stops at the first violation.
Found searchWorlds(const std::vector<SubmitJob>& jobs, int troubles);

}  // namespace parallel::scheduler::ledger::testing
