// What a ledger is read back from, made fit for comparing: in one order, without details.
#pragma once

#include <algorithm>
#include <string>
#include <tuple>

#include "scheduler/ledger/Kept.h"

namespace parallel::scheduler::store::testing {

inline ledger::Kept sortedKept(ledger::Kept kept) {
  const auto sort = [](auto& rows, auto key) {
    std::sort(rows.begin(), rows.end(), [&](const auto& a, const auto& b) { return key(a) < key(b); });
  };
  sort(kept.keys, [](const auto& row) { return row.key; });
  sort(kept.progress, [](const auto& row) { return row.job; });
  sort(kept.rounds, [](const auto& row) { return std::pair(row.job, row.round); });
  sort(kept.arrays, [](const auto& row) { return std::pair(row.job, row.tasks.first); });
  sort(kept.ranges, [](const auto& row) { return std::pair(row.job, row.tasks.last); });
  sort(kept.tasks, [](const auto& row) { return std::pair(row.job, row.task); });
  sort(kept.attempts, [](const auto& row) { return row.key; });
  sort(kept.workers, [](const auto& row) { return row.id; });
  for (auto& row : kept.arrays)
    row.details.clear();
  for (auto& row : kept.attempts)
    row.details.clear();
  return kept;
}

}  // namespace parallel::scheduler::store::testing
