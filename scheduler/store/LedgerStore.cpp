#include "scheduler/store/LedgerStore.h"

namespace parallel::scheduler::store {

using threads::MutexLock;
using namespace ledger;  // NOLINT(google-build-using-namespace): every record is one of its types

LedgerStore::LedgerStore(Database& database, GroupCommit& commits)
    : commits_(commits), tables_(std::make_shared<LedgerTables>(database)) {}

LedgerStore::~LedgerStore() = default;

void LedgerStore::keep(Changes changes, GroupCommit::Kept kept) {
  keep(std::move(changes), {}, std::move(kept));
}

void LedgerStore::keep(Changes changes, GroupCommit::Write beside, GroupCommit::Kept kept) {
  const MutexLock lock(mutex_);
  pending_.changes.merge(std::move(changes));
  if (beside)
    pending_.beside.push_back(std::move(beside));
  if (kept)
    pending_.kept.push_back(std::move(kept));
  if (isQueued_)
    return;
  const auto batch = std::make_shared<Batch>();
  commits_.write([this, batch, isTaken = false](GroupCommit::Group& group) mutable { write(*batch, isTaken, group); },
                 [batch] {
                   for (const GroupCommit::Kept& tell : batch->kept)
                     tell();
                 });
  isQueued_ = true;
}

// Takes what is pending at the moment of its turn, once: a group may be run again.
void LedgerStore::write(Batch& batch, bool& isTaken, GroupCommit::Group& group) {
  if (!std::exchange(isTaken, true)) {
    const MutexLock lock(mutex_);
    batch = std::exchange(pending_, Batch{});
    isQueued_ = false;
  }
  tables_->apply(batch.changes);
  for (const GroupCommit::Write& beside : batch.beside)
    beside(group);
}

Kept LedgerStore::load() {
  return read([](LedgerTables& tables) { return tables.kept(); });
}

std::optional<AttemptRecord> LedgerStore::attempt(const AttemptKey& key) const {
  return commits_.ask([&](Database&) { return tables_->attempt(key); });
}

TaskSet LedgerStore::endedTasks(JobId job, TaskSpan bounds, TaskState state) const {
  return commits_.ask([&](Database&) { return tables_->endedTasks(job, bounds, state); });
}

}  // namespace parallel::scheduler::store
