// The tables of a store, and how those of an older version become today's. What they mean: docs/store.md.
#pragma once

#include <filesystem>

#include "scheduler/store/sqlite/Database.h"

namespace parallel::scheduler::store {

inline constexpr int kStoreFormat = 1;

// Brings the tables to today's format, from none or from an older one. An older store is copied beside itself first
// ("store.db.format-N"). parallel::store::StoreTooNew for a newer one.
void migrate(Database& database);

}  // namespace parallel::scheduler::store
