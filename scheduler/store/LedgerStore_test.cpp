#include "scheduler/store/LedgerStore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <string>
#include <vector>

#include "scheduler/ledger/Books.h"
#include "scheduler/store/testing/OpenStore.h"
#include "scheduler/store/testing/RandomChanges.h"
#include "scheduler/store/testing/sortedKept.h"

namespace parallel::scheduler::store {
namespace {

using ledger::Books;
using ledger::JobId;
using ledger::TaskRecord;
using ledger::TaskState;
using testing::keepAndWait;
using testing::OpenStore;
using testing::RandomChanges;
using testing::sortedKept;

ledger::Changes changesWithTask(ledger::TaskNumber task, TaskState state) {
  ledger::Changes changes;
  changes.jobs[JobId(1)].id = JobId(1);
  changes.tasks[{JobId(1), task}] = TaskRecord{.job = JobId(1), .task = task, .state = state};
  return changes;
}

TEST(LedgerStore, NextStartReadsBackWhatWasKept) {
  OpenStore store({.isDurable = false});
  Books books;
  RandomChanges random(1);
  for (int event = 0; event < 200; ++event) {
    const ledger::Changes changes = random.next();
    books.apply(changes);
    store->ledger().keep(changes, {});
    if (event % 50 == 0)
      store.reopen();
  }
  store.reopen();
  EXPECT_EQ(sortedKept(store->ledger().load()), sortedKept(books.kept()));
}

TEST(LedgerStore, EveryoneIsToldInOrderAlsoWhereChangesAreMerged) {
  OpenStore store({.isDurable = false});
  std::vector<int> told;
  for (int i = 0; i < 1000; ++i)
    store->ledger().keep(changesWithTask(static_cast<ledger::TaskNumber>(i % 7), TaskState::running),
                         [&told, i] { told.push_back(i); });
  store.close();
  ASSERT_EQ(told.size(), 1000U);
  EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
}

TEST(LedgerStore, ArchiveShowsWhatWasHandedOutBeforeItIsKept) {
  OpenStore store({.isDurable = false});
  for (int round = 0; round < 100; ++round) {
    const auto task = static_cast<ledger::TaskNumber>(round);
    ledger::Changes changes = changesWithTask(task, TaskState::failed);
    changes.attempts[{JobId(1), task, 1}] = ledger::AttemptRecord{.key = {JobId(1), task, 1}};
    store->ledger().keep(changes, {});
    EXPECT_EQ(store->ledger().endedTasks(JobId(1), {0, task}, TaskState::failed).count(), task + 1);
    EXPECT_TRUE(store->ledger().attempt({JobId(1), task, 1}));
  }
}

TEST(LedgerStore, WhatIsWrittenBesideIsInTheSameTransaction) {
  OpenStore store({.isDurable = false});
  std::promise<void> kept;
  store->ledger().keep(
      changesWithTask(1, TaskState::running),
      [](GroupCommit::Group& group) { EXPECT_EQ(group.database.number("SELECT count(*) FROM tasks"), 1); },
      [&] { kept.set_value(); });
  EXPECT_EQ(kept.get_future().wait_for(testing::kDeadline), std::future_status::ready);
  EXPECT_EQ(store->ledger().read([](LedgerTables& tables) {
    return tables.tasksFrom({JobId(1), 0}, {}, 10).size();
  }),
            1U);
}

TEST(LedgerStore, DeletedJobsKeyIsRemembered) {
  OpenStore store({.isDurable = false});
  ledger::Changes changes = changesWithTask(1, TaskState::running);
  changes.keys["key"] = {"key", "digest", JobId(1)};
  ASSERT_TRUE(keepAndWait(store->ledger(), changes));
  ledger::Changes deletion;
  deletion.deletedJobs = {JobId(1)};
  ASSERT_TRUE(keepAndWait(store->ledger(), deletion));
  const ledger::Kept kept = store->ledger().load();
  EXPECT_EQ(kept.keys.size(), 1U);
  EXPECT_TRUE(kept.tasks.empty());
}

}  // namespace
}  // namespace parallel::scheduler::store
