#include "scheduler/store/Store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <ios>
#include <sstream>
#include <string>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "scheduler/ledger/Books.h"
#include "scheduler/store/schema.h"
#include "scheduler/store/testing/OpenStore.h"
#include "scheduler/store/testing/knownChanges.h"
#include "scheduler/store/testing/sortedKept.h"

namespace parallel::scheduler::store {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using testing::contentOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::keepAndWait;
using testing::knownChanges;
using testing::minute;
using testing::OpenStore;
using testing::sortedKept;
using ::testing::ThrowsMessage;

ledger::Kept knownKept() {
  ledger::Books books;
  books.apply(knownChanges());
  return sortedKept(books.kept());
}

TEST(Store, IsItsUsersAlone) {
  const OpenStore store;
  EXPECT_EQ(fs::status(store.folder()).permissions(), fs::perms::owner_all);
}

TEST(Store, SecondServiceIsToldWhoHasIt) {
  OpenStore store;
  EXPECT_THAT([&] { Store(store.folder()); },
              ThrowsMessage<Exception<parallel::store::StoreInUse>>(
                  AllOf(HasSubstr(store.folder().string()), HasSubstr(StoreLock::ownName()))));
  ASSERT_TRUE(keepAndWait(store->ledger(), knownChanges()));
}

TEST(Store, NewerFormatIsRefusedAndLeftAsItIs) {
  OpenStore store;
  store.close();
  const fs::path file = store.folder() / "store.db";
  Database(file, {}).run("PRAGMA user_version = 99");
  EXPECT_THAT([&] { store.reopen(); },
              ThrowsMessage<Exception<parallel::store::StoreTooNew>>(
                  HasSubstr("has format 99, and this version knows formats up to " + std::to_string(kStoreFormat))));
  EXPECT_EQ(Database(file, {}).number("PRAGMA user_version"), 99);
}

TEST(Store, AnotherProgramsDatabaseIsRefused) {
  OpenStore store;
  store.close();
  Database(store.folder() / "store.db", {}).run("PRAGMA application_id = 1");
  EXPECT_THAT([&] { store.reopen(); }, ThrowsMessage<Exception<parallel::store::StoreUnusable>>(
                                           HasSubstr("its file store.db is another program's database")));
}

TEST(Store, FolderThatCannotBeMadeIsNamed) {
  EXPECT_THAT([] { Store("/proc/zks-store"); },
              ThrowsMessage<Exception<parallel::store::StoreUnusable>>(
                  HasSubstr("The store /proc/zks-store cannot be used: Making the folder \"/proc/zks-store\"")));
}

TEST(Store, FileThatIsNoDatabaseIsDamage) {
  OpenStore store;
  store.close();
  std::ofstream(store.folder() / "store.db") << std::string(5000, 'x');
  EXPECT_THROW(store.reopen(), Exception<parallel::store::DatabaseDamaged>);
}

TEST(Store, EachCorruptPageIsFoundByTheCheckOrAtTheStart) {
  OpenStore store({.isDurable = false});
  ASSERT_TRUE(keepAndWait(store->ledger(), knownChanges()));
  store.close();
  const fs::path file = store.folder() / "store.db";
  std::ostringstream whole;
  whole << std::ifstream(file, std::ios::binary).rdbuf();
  constexpr std::size_t kPageBytes = 4096;
  for (std::size_t page = 0; page < whole.str().size() / kPageBytes; ++page) {
    std::string damaged = whole.str();
    damaged.replace(page * kPageBytes, kPageBytes, kPageBytes, '\xAB');
    std::ofstream(file, std::ios::binary) << damaged;
    bool isFound = false;
    try {
      store.reopen();
      isFound = !store->check().empty();
    } catch (const Exception<parallel::store::DatabaseDamaged>&) {
      isFound = true;
    }
    EXPECT_TRUE(isFound) << "page " << page;
    store.close();
  }
}

TEST(Store, CheckFindsNothingInAGoodOne) {
  OpenStore store({.isDurable = false});
  ASSERT_TRUE(keepAndWait(store->ledger(), knownChanges()));
  store->blobs().put("holder", testing::patternOf(100'000), minute(0));
  EXPECT_THAT(store->check(), IsEmpty());
}

TEST(Store, BackupCanBeOpened) {
  OpenStore store({.isDurable = false});
  ASSERT_TRUE(keepAndWait(store->ledger(), knownChanges()));
  const files::testing::TemporaryDirectory place;
  fs::create_directory(place.file("copy"));
  store->backUp(place.file("copy") / "store.db");
  Store copy(place.file("copy"));
  EXPECT_EQ(sortedKept(copy.ledger().load()), knownKept());
}

TEST(Store, TidyGivesRoomBackToTheDisk) {
  OpenStore store({.isDurable = false});
  for (char seed = 0; seed < 100; ++seed)
    store->blobs().put("holder", testing::patternOf(50'000, seed), minute(0));
  store.reopen();
  const fs::path file = store.folder() / "store.db";
  const auto before = fs::file_size(file);
  store->blobs().unpin("holder", minute(0));
  store->tidy(minute(1000));
  store.reopen();
  EXPECT_LT(fs::file_size(file), before / 10);
}

TEST(Store, MakingThatWasCutOffIsBegunAgain) {
  OpenStore store;
  store.close();
  fs::remove(store.folder() / "store.db");
  std::ofstream(store.folder() / "store.db").flush();  // empty, as a kill right after its making leaves it
  store.reopen();
  ASSERT_TRUE(keepAndWait(store->ledger(), knownChanges()));
}

// A store of each format that there ever was, kept as SQL, must open and show what it held.
TEST(Store, FormatOneOpens) {
  OpenStore store;
  store.close();
  fs::remove(store.folder() / "store.db");
  std::ostringstream sql;
  sql << std::ifstream(fs::path(ZKS_SOURCE_DIR) / "scheduler/store/testing/store-format-1.sql").rdbuf();
  Database(store.folder() / "store.db", {.isNew = true}).run(sql.str());
  store.reopen();
  EXPECT_EQ(sortedKept(store->ledger().load()), knownKept());
  for (const auto& [key, attempt] : knownChanges().attempts)
    EXPECT_EQ(store->ledger().attempt(key), attempt);
  EXPECT_EQ(contentOf(store->blobs(), Digest::of("a small blob")), "a small blob");
  EXPECT_TRUE(store->blobs().pin("job 1", {Digest::of("a small blob")}, minute(0)).empty());
}

}  // namespace
}  // namespace parallel::scheduler::store
