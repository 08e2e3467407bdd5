#include "scheduler/store/sqlite/Database.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <limits>
#include <string>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/files/testing/TemporaryDirectory.h"
#include "scheduler/store/sqlite/Statement.h"

namespace parallel::scheduler::store {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

class DatabaseTest : public ::testing::Test {
 protected:
  files::testing::TemporaryDirectory place_;
  Database database_{place_.file("test.db"), {.isNew = true}};
};

TEST_F(DatabaseTest, ValuesComeOutAsTheyWentIn) {
  database_.run("CREATE TABLE t (a, b, c, d, e)");
  const std::string text("a\0b\xC3\xBC", 5);
  const std::string bytes("\0\xFF", 2);
  Statement insert(database_, "INSERT INTO t VALUES (?, ?, ?, ?, ?)");
  insert.bind(std::numeric_limits<std::uint64_t>::max()).bind(-7).bind(text).bindBytes(bytes).bindNull().run();
  insert.bind(0).bind(true).bind(std::string_view().empty()).bindBytes({}).bind(1).run();  // reset by run()
  Statement select(database_, "SELECT * FROM t");
  ASSERT_TRUE(select.step());
  EXPECT_EQ(select.number(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(select.signedNumber(), -7);
  EXPECT_EQ(select.text(), text);
  EXPECT_EQ(select.bytes(), bytes);
  EXPECT_TRUE(select.skipNull());
  ASSERT_TRUE(select.step());
  EXPECT_EQ(select.number(), 0U);
  EXPECT_TRUE(select.as<bool>());
  EXPECT_TRUE(select.as<bool>());
  EXPECT_FALSE(select.skipNull());
  EXPECT_EQ(select.bytes(), "");
  EXPECT_FALSE(select.step());
}

TEST_F(DatabaseTest, TransactionIsRolledBackUnlessItWasCommitted) {
  database_.run("CREATE TABLE t (a)");
  {
    Transaction transaction(database_);
    database_.run("INSERT INTO t VALUES (1)");
  }
  EXPECT_EQ(database_.number("SELECT count(*) FROM t"), 0);
  {
    Transaction transaction(database_);
    database_.run("INSERT INTO t VALUES (1)");
    transaction.commit();
  }
  EXPECT_EQ(database_.number("SELECT count(*) FROM t"), 1);
}

TEST_F(DatabaseTest, StatementCanBeRunAgainAfterAnError) {
  database_.run("CREATE TABLE t (a PRIMARY KEY)");
  Statement insert(database_, "INSERT INTO t VALUES (?)");
  insert.bind(1).run();
  EXPECT_THROW(insert.bind(1).run(), Exception<parallel::store::DatabaseFailed>);
  insert.bind(2).run();
  EXPECT_EQ(database_.number("SELECT count(*) FROM t"), 2);
}

TEST_F(DatabaseTest, ErrorNamesFileActionAndSqlitesWords) {
  EXPECT_THAT([&] { database_.run("SELECT * FROM nowhere"); },
              ThrowsMessage<Exception<parallel::store::DatabaseFailed>>(
                  AllOf(HasSubstr(place_.file("test.db").string()), HasSubstr("at SELECT * FROM nowhere"),
                        HasSubstr("no such table: nowhere (SQLite's code 1)"))));
}

TEST_F(DatabaseTest, DatabaseThatIsNotThereIsNotMade) {
  EXPECT_THAT([&] { Database(place_.file("nowhere.db"), {}); },
              ThrowsMessage<Exception<parallel::store::DatabaseFailed>>(HasSubstr("unable to open database file")));
  EXPECT_FALSE(std::filesystem::exists(place_.file("nowhere.db")));
}

TEST_F(DatabaseTest, FileThatIsNoneIsDamaged) {
  std::ofstream(place_.file("text.db")) << std::string(5000, 'x');
  Database text(place_.file("text.db"), {});
  EXPECT_THAT([&] { text.number("PRAGMA user_version"); },
              ThrowsMessage<Exception<parallel::store::DatabaseDamaged>>(HasSubstr("file is not a database")));
}

TEST_F(DatabaseTest, FullDiskIsToldApart) {
  database_.run("CREATE TABLE t (a); PRAGMA max_page_count = 4");
  EXPECT_THAT([&] { database_.run("INSERT INTO t VALUES (zeroblob(100000))"); },
              ThrowsMessage<Exception<parallel::store::DatabaseFull>>(HasSubstr("database or disk is full")));
}

}  // namespace
}  // namespace parallel::scheduler::store
