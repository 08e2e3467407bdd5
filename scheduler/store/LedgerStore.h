// The books of a ledger on disk. Changes are kept in the order in which they come; those that come while others are being
// committed are merged, and written once.
//
// Threads: any.
// Errors:  parallel::store::StoreFailed, and what ends the store (GroupCommit.h).
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/threads/Mutex.h"
#include "scheduler/ledger/Archive.h"
#include "scheduler/ledger/Changes.h"
#include "scheduler/ledger/Kept.h"
#include "scheduler/store/GroupCommit.h"
#include "scheduler/store/LedgerTables.h"

namespace parallel::scheduler::store {

// Ownership: borrows the commits, whose database it reads before the first of them.
class LedgerStore final : public ledger::Archive {
 public:
  LedgerStore(Database& database, GroupCommit& commits);
  ~LedgerStore() override;

  // `kept` runs once the changes are durable: on the thread of the commits, where it must not wait. `beside` runs in the
  // same transaction, after the changes.
  void keep(ledger::Changes changes, GroupCommit::Kept kept);
  void keep(ledger::Changes changes, GroupCommit::Write beside, GroupCommit::Kept kept);

  // What a ledger is read back from.
  ledger::Kept load();

  // The archive of the ledger: shows what keep() was given so far, committed or not.
  std::optional<ledger::AttemptRecord> attempt(const ledger::AttemptKey& key) const override;
  ledger::TaskSet endedTasks(ledger::JobId job, ledger::TaskSpan bounds, ledger::TaskState state) const override;

  // For everybody else: shows what is committed. The question gets the tables, and runs on the thread of the commits.
  template <class Question>
  auto read(Question question) {
    return commits_.askCommitted([&](Database&) { return question(*tables_); });
  }

 private:
  struct Batch {
    ledger::Changes changes;
    std::vector<GroupCommit::Write> beside;
    std::vector<GroupCommit::Kept> kept;
  };

  void write(Batch& batch, bool& isTaken, GroupCommit::Group& group);

  GroupCommit& commits_;
  std::shared_ptr<LedgerTables> tables_;
  threads::Mutex mutex_;
  Batch pending_ ZKS_GUARDED_BY(mutex_);
  bool isQueued_ ZKS_GUARDED_BY(mutex_) = false;
};

}  // namespace parallel::scheduler::store
