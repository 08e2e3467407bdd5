#include "scheduler/store/GroupCommit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/files/testing/TemporaryDirectory.h"
#include "scheduler/store/sqlite/Statement.h"

namespace parallel::scheduler::store {
namespace {

using Group = GroupCommit::Group;
using ::testing::HasSubstr;

// A database with one table, and its commits.
class GroupCommits : public ::testing::Test {
 protected:
  GroupCommits() {
    database_.run("PRAGMA journal_mode = WAL; PRAGMA synchronous = OFF; CREATE TABLE t (a PRIMARY KEY)");
    reserve_.take();
    commits_.emplace(database_, systemFiles(), reserve_,
                     [this](const std::string& reason) { failed_.set_value(reason); });
  }

  static GroupCommit::Write insert(int value) {
    return [value](Group& group) { Statement(group.database, "INSERT INTO t VALUES (?)").bind(value).run(); };
  }
  static std::int64_t count(Database& database) { return database.number("SELECT count(*) FROM t"); }
  std::string failure() { return failed_.get_future().get(); }

  // Keeps the thread of the commits busy until it is released: what comes meanwhile is one group.
  std::promise<void> hold() {
    std::promise<void> release;
    commits_->write([released = release.get_future().share()](Group&) { released.wait(); }, {});
    return release;
  }

  files::testing::TemporaryDirectory place_;
  Database database_{place_.file("test.db"), {.isNew = true}};
  Reserve reserve_{systemFiles(), place_.file("reserve"), 4096};
  std::promise<std::string> failed_;
  std::optional<GroupCommit> commits_;
};

TEST_F(GroupCommits, WriteIsThereWhenItIsKept) {
  commits_->writeAndWait(insert(1));
  EXPECT_EQ(commits_->askCommitted(count), 1);
}

TEST_F(GroupCommits, WhatComesMeanwhileIsOneGroupInTheOrderOfComing) {
  std::promise<void> release = hold();
  std::vector<int> kept;
  std::promise<void> last;
  for (int value = 0; value < 100; ++value)
    commits_->write(insert(value), [&, value] {
      kept.push_back(value);
      if (value == 99)
        last.set_value();
    });
  release.set_value();
  last.get_future().get();
  std::vector<int> all(100);
  std::iota(all.begin(), all.end(), 0);
  EXPECT_EQ(kept, all);
  EXPECT_EQ(commits_->askCommitted(count), 100);
}

TEST_F(GroupCommits, QuestionInItsTurnShowsWhatIsNotCommitted) {
  std::promise<void> release = hold();
  commits_->write(insert(1), {});
  auto asked = std::async(std::launch::async, [&] { return commits_->ask(count); });
  release.set_value();
  EXPECT_EQ(asked.get(), 1);
}

TEST_F(GroupCommits, QuestionBetweenGroupsNeverShowsAWriteThatFails) {
  std::promise<void> release = hold();
  commits_->write(insert(1), {});
  commits_->write([](Group&) { throw std::runtime_error("broken"); }, {});
  auto asked = std::async(std::launch::async, [&] { return commits_->askCommitted(count); });
  release.set_value();
  try {
    EXPECT_EQ(asked.get(), 0);
  } catch (const Exception<parallel::store::StoreFailed>&) {
    // Asked after the failure.
  }
}

TEST_F(GroupCommits, QuestionThatFailsHarmsNobodyElse) {
  EXPECT_THROW(commits_->ask([](Database& database) { return database.number("SELECT * FROM nowhere"); }),
               Exception<parallel::store::DatabaseFailed>);
  commits_->writeAndWait(insert(1));
  EXPECT_EQ(commits_->ask(count), 1);
}

TEST_F(GroupCommits, WriteThatFailsAnswersNothingOfItsGroupAndEndsTheStore) {
  std::promise<void> release = hold();
  bool isKept = false;
  commits_->write(insert(1), [&] { isKept = true; });
  commits_->write(insert(1), [&] { isKept = true; });  // a second time
  release.set_value();
  EXPECT_THROW(commits_->writeAndWait(insert(2)), Exception<parallel::store::StoreFailed>);
  const std::string reason = failure();
  EXPECT_THAT(reason, HasSubstr("UNIQUE constraint failed"));
  EXPECT_FALSE(isKept);
  try {
    commits_->write(insert(3), {});
    ADD_FAILURE() << "it was taken";
  } catch (const Exception<parallel::store::StoreFailed>& dead) {
    EXPECT_THAT(dead.what(), HasSubstr(reason));
  }
  commits_.reset();
}

TEST_F(GroupCommits, CloseKeepsWhatWasGivenBefore) {
  std::promise<void> release = hold();
  int kept = 0;
  for (int value = 0; value < 10; ++value)
    commits_->write(insert(value), [&] { ++kept; });
  std::thread closing([&] { commits_.reset(); });
  release.set_value();
  closing.join();
  EXPECT_EQ(kept, 10);
  EXPECT_EQ(count(database_), 10);
}

TEST_F(GroupCommits, FullDiskIsOvercomeOnceWithTheReserve) {
  int runs = 0;
  commits_->writeAndWait([&](Group& group) {
    insert(1)(group);
    if (++runs == 1)
      throw Exception<parallel::store::DatabaseFull>("test.db", "writing", "full");
  });
  EXPECT_EQ(runs, 2);
  EXPECT_FALSE(reserve_.isTaken());
  EXPECT_EQ(commits_->askCommitted(count), 1);
  EXPECT_THROW(commits_->writeAndWait(
                   [&](Group&) { throw Exception<parallel::store::DatabaseFull>("test.db", "writing", "full"); }),
               Exception<parallel::store::StoreFailed>);
  commits_.reset();
}

TEST_F(GroupCommits, FullDiskAsksAQuestionOfItsGroupOnce) {
  std::promise<void> release = hold();
  int runs = 0;
  int asked = 0;
  auto question = std::async(std::launch::async, [&] { return commits_->ask([&](Database&) { return ++asked; }); });
  commits_->write(
      [&](Group&) {
        if (++runs == 1)
          throw Exception<parallel::store::DatabaseFull>("test.db", "writing", "full");
      },
      {});
  release.set_value();
  EXPECT_EQ(question.get(), 1);
  commits_->writeAndWait(insert(1));
  EXPECT_EQ(asked, 1);
}

}  // namespace
}  // namespace parallel::scheduler::store
