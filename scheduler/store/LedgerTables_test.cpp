// The tables against the books in memory.
#include "scheduler/store/LedgerTables.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/files/testing/TemporaryDirectory.h"
#include "scheduler/ledger/Books.h"
#include "scheduler/store/schema.h"
#include "scheduler/store/sqlite/Statement.h"
#include "scheduler/store/testing/RandomChanges.h"
#include "scheduler/store/testing/sortedKept.h"

namespace parallel::scheduler::store {
namespace {

using ledger::AttemptKey;
using ledger::Books;
using ledger::JobId;
using ledger::TaskKey;
using ledger::TaskNumber;
using ledger::TaskRecord;
using ledger::TaskState;
using testing::RandomChanges;
using testing::sortedKept;

struct OpenTables {
  OpenTables() {
    database.run("PRAGMA foreign_keys = ON; PRAGMA synchronous = OFF; PRAGMA journal_mode = MEMORY");
    migrate(database);
  }
  files::testing::TemporaryDirectory place;
  Database database{place.file("test.db"), {.isNew = true}};
  LedgerTables& tables() {
    if (!tables_)
      tables_.emplace(database);
    return *tables_;
  }

 private:
  std::optional<LedgerTables> tables_;
};

// Every single row and page that can be asked for.
void expectRows(LedgerTables& tables, const Books::Tables& books) {
  std::vector<ledger::JobRecord> jobs;
  for (const auto& [id, job] : books.jobs) {
    EXPECT_EQ(tables.job(id), job);
    jobs.push_back(job);
  }
  EXPECT_EQ(tables.jobsAfter(JobId(0), 1000), jobs);
  for (const auto& [key, array] : books.arrays) {
    EXPECT_EQ(tables.arrayOf({array.job, array.tasks.last}), array);
    EXPECT_EQ(tables.arrayOf({array.job, array.tasks.last + 1}), std::nullopt);
  }
  for (const auto& [key, task] : books.tasks)
    EXPECT_EQ(tables.task(key), task);
  for (const auto& [key, attempt] : books.attempts) {
    EXPECT_EQ(tables.attempt(key), attempt);
    EXPECT_EQ(tables.attemptsOf({key.job, key.task}).empty(), false);
  }
}

TEST(LedgerTables, ShowWhatTheBooksInMemoryShowAfterEachOfManyChanges) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    OpenTables open;
    RandomChanges random(seed);
    Books books;
    for (int event = 0; event < 60; ++event) {
      const ledger::Changes changes = random.next();
      books.apply(changes);
      open.tables().apply(changes);
      ASSERT_EQ(sortedKept(open.tables().kept()), sortedKept(books.kept())) << "event " << event;
    }
    expectRows(open.tables(), books.tables());
    for (const auto& [id, job] : books.tables().jobs) {
      for (const TaskState state : {TaskState::succeeded, TaskState::failed, TaskState::cancelled, TaskState::skipped})
        EXPECT_EQ(open.tables().endedTasks(id, {1, ~TaskNumber{0}}, state),
                  books.endedTasks(id, {1, ~TaskNumber{0}}, state));
    }
  }
}

TEST(LedgerTables, NewStoreKeepsNothing) {
  OpenTables open;
  EXPECT_EQ(open.tables().kept(), ledger::Kept());
  EXPECT_EQ(open.tables().job(JobId(1)), std::nullopt);
  EXPECT_EQ(open.tables().attempt(AttemptKey{}), std::nullopt);
}

TEST(LedgerTables, TasksArePagedInOrderByState) {
  OpenTables open;
  ledger::Changes changes;
  changes.jobs[JobId(1)].id = JobId(1);
  changes.jobs[JobId(2)].id = JobId(2);
  for (TaskNumber task = 0; task < 10; ++task) {
    const TaskState state = task % 2 == 0 ? TaskState::succeeded : TaskState::failed;
    changes.tasks[{JobId(1), task}] = TaskRecord{.job = JobId(1), .task = task, .state = state};
    changes.tasks[{JobId(2), task}] = TaskRecord{.job = JobId(2), .task = task, .state = state};
  }
  open.tables().apply(changes);
  const auto numbers = [&](TaskNumber first, std::optional<TaskState> state, std::size_t limit) {
    std::vector<TaskNumber> found;
    for (const TaskRecord& task : open.tables().tasksFrom({JobId(1), first}, state, limit))
      found.push_back(task.task);
    return found;
  };
  using Numbers = std::vector<TaskNumber>;
  EXPECT_EQ(numbers(0, std::nullopt, 3), (Numbers{0, 1, 2}));
  EXPECT_EQ(numbers(3, std::nullopt, 100), (Numbers{3, 4, 5, 6, 7, 8, 9}));
  EXPECT_EQ(numbers(3, TaskState::failed, 2), (Numbers{3, 5}));
  EXPECT_EQ(numbers(3, TaskState::succeeded, 100), (Numbers{4, 6, 8}));
  EXPECT_EQ(numbers(0, TaskState::running, 100), Numbers());
}

// A million that succeeded must not be looked at for a start.
TEST(LedgerTables, StartReadsWhatHasNotEndedByAnIndex) {
  OpenTables open;
  Statement plan(open.database, "EXPLAIN QUERY PLAN SELECT job FROM tasks WHERE state <> 4 AND state IN (0, 1, 2, 3)");
  ASSERT_TRUE(plan.step());
  for (int column = 0; column < 3; ++column)
    plan.number();
  EXPECT_NE(plan.text().find("tasks_not_succeeded (state=?)"), std::string::npos);
  Statement attempts(open.database, "EXPLAIN QUERY PLAN SELECT job FROM attempts WHERE state <> 3");
  ASSERT_TRUE(attempts.step());
  for (int column = 0; column < 3; ++column)
    attempts.number();
  EXPECT_NE(attempts.text().find("attempts_not_ended"), std::string::npos);
}

TEST(LedgerTables, ColumnOfNumbersThatIsCutIsDamage) {
  OpenTables open;
  ledger::Changes changes;
  changes.jobs[JobId(1)].id = JobId(1);
  changes.progress[JobId(1)].job = JobId(1);
  open.tables().apply(changes);
  open.database.run("UPDATE progress SET counts = x'80'");
  EXPECT_THROW(open.tables().kept(), Exception<parallel::store::DatabaseDamaged>);
}

}  // namespace
}  // namespace parallel::scheduler::store
