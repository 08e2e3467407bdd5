// The rows of a ledger in the tables of the store.
//
// Threads: those of the database.
// Errors:  those of Database; parallel::store::DatabaseDamaged for a row that cannot be read.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "scheduler/ledger/Changes.h"
#include "scheduler/ledger/Kept.h"
#include "scheduler/ledger/TaskSet.h"
#include "scheduler/store/sqlite/Database.h"

namespace parallel::scheduler::store {

// Ownership: borrows the database, and keeps statements prepared in it.
class LedgerTables {
 public:
  explicit LedgerTables(Database& database);
  ~LedgerTables();
  LedgerTables(const LedgerTables&) = delete;
  LedgerTables& operator=(const LedgerTables&) = delete;

  // Within a transaction of the caller.
  void apply(const ledger::Changes& changes);

  // What has not ended, and what a ledger needs of the rest. `details` are left out.
  ledger::Kept kept();

  // --- Single rows and pages, in ascending order ---
  std::optional<ledger::JobRecord> job(ledger::JobId id);
  std::vector<ledger::JobRecord> jobsAfter(ledger::JobId after, std::size_t limit);
  // Of numbers below `before`, the greatest first; of that name only, unless it is empty. Without details.
  std::vector<ledger::JobRecord> jobsBefore(ledger::JobId before, const std::string& name, std::size_t limit);
  std::optional<ledger::JobProgress> progress(ledger::JobId job);
  // Of all jobs together.
  ledger::TaskCounts counts();
  std::uint64_t jobCount();
  // Those of the job that end at that task or later.
  std::vector<ledger::ArrayRecord> arraysFrom(ledger::TaskKey task, std::size_t limit);
  std::vector<ledger::RangeRecord> rangesFrom(ledger::TaskKey task, std::size_t limit);
  std::optional<ledger::ArrayRecord> arrayOf(ledger::TaskKey task);
  std::optional<ledger::TaskRecord> task(ledger::TaskKey key);
  // Those with a TaskRecord, of that state or of any, from a task on.
  std::vector<ledger::TaskRecord> tasksFrom(ledger::TaskKey first, std::optional<ledger::TaskState> state,
                                            std::size_t limit);
  std::optional<ledger::AttemptRecord> attempt(const ledger::AttemptKey& key);
  std::vector<ledger::AttemptRecord> attemptsOf(ledger::TaskKey task);
  ledger::TaskSet endedTasks(ledger::JobId job, ledger::TaskSpan bounds, ledger::TaskState state);

 private:
  struct Statements;
  Database& database_;
  std::unique_ptr<Statements> statements_;
};

}  // namespace parallel::scheduler::store
