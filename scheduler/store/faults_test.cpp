// A store on a disk that fails at every single step, or loses its power there.
//
// After each failure the store is opened anew on a good disk: what was answered is there, what was not is there whole or
// not at all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "scheduler/ledger/Books.h"
#include "scheduler/store/sqlite/testing/FaultyVfs.h"
#include "scheduler/store/testing/FaultyDisk.h"
#include "scheduler/store/testing/FaultyFiles.h"
#include "scheduler/store/testing/OpenStore.h"
#include "scheduler/store/testing/RandomChanges.h"
#include "scheduler/store/testing/sortedKept.h"

namespace parallel::scheduler::store {
namespace {

using ledger::Books;
using testing::contentOf;
using testing::FaultyDisk;
using testing::FaultyFiles;
using testing::FaultyVfs;
using ::testing::IsEmpty;
using testing::keepAndWait;
using testing::minute;
using testing::patternOf;
using testing::RandomChanges;
using testing::sortedKept;

constexpr std::size_t kLargeBytes = BlobStore::kSmallBytes + 1000;

// Some of everything: changes, small and large blobs, an upload in pieces, a collection. Notes what was answered.
class Work {
 public:
  explicit Work(std::uint64_t seed) : random_(seed) { states_.push_back(sortedKept(books_.kept())); }

  // Until something fails.
  void run(Store& store) try {
    for (int round = 0; round < 2; ++round) {
      for (int event = 0; event < 2; ++event)
        keep(store);
      putWhole(store, patternOf(2000, static_cast<char>(round)));
      putWhole(store, patternOf(kLargeBytes, static_cast<char>(round)));
      putInPieces(store, patternOf(kLargeBytes + 1, static_cast<char>(round)));
      forget(store);
    }
  } catch (const std::exception&) {
    // The fault: what was answered has been noted.
  }

  // On a good disk.
  void expectKept(Store& store) const {
    const ledger::Kept kept = sortedKept(store.ledger().load());
    bool isOneOfThem = false;
    for (std::size_t state = answered_; state < states_.size(); ++state)
      isOneOfThem = isOneOfThem || kept == states_[state];
    EXPECT_TRUE(isOneOfThem) << "the books are none of those since the last answer";
    for (const std::string& content : put_)
      EXPECT_EQ(contentOf(store.blobs(), Digest::of(content)), content);
    EXPECT_THAT(store.check(), IsEmpty());
    store.blobs().sweepFiles();
    EXPECT_THAT(store.check(), IsEmpty());
  }
  // That the store goes on as if nothing had been.
  void expectGoesOn(Store& store) {
    putWhole(store, patternOf(kLargeBytes, 99));
    for (const std::string& content : unanswered_)
      putWhole(store, content);
    EXPECT_THAT(store.check(), IsEmpty());
  }

 private:
  void keep(Store& store) {
    const ledger::Changes changes = random_.next();
    books_.apply(changes);
    states_.push_back(sortedKept(books_.kept()));
    if (!keepAndWait(store.ledger(), changes))
      throw std::runtime_error("not kept");
    answered_ = states_.size() - 1;
  }

  void putWhole(Store& store, const std::string& content) {
    unanswered_.push_back(content);
    store.blobs().put("keeper", content, minute(0));
    unanswered_.pop_back();
    put_.push_back(content);
  }

  void putInPieces(Store& store, const std::string& content) {
    const Digest digest = Digest::of(content);
    unanswered_.push_back(content);
    store.blobs().upload("keeper", digest, content.size(), 0)->write(content.substr(0, 1000));
    const auto rest = store.blobs().upload("keeper", digest, content.size(), 1000);
    rest->write(content.substr(1000));
    rest->finish(minute(0));
    unanswered_.pop_back();
    put_.push_back(content);
  }

  // Puts one that is collected again.
  static void forget(Store& store) {
    store.blobs().put("passer-by", patternOf(kLargeBytes + 7), minute(0));
    store.blobs().unpin("passer-by", minute(0));
    store.tidy(minute(1000));
  }

  RandomChanges random_;
  Books books_;
  std::vector<ledger::Kept> states_;  // after each event
  std::size_t answered_ = 0;          // the last of them that was
  std::vector<std::string> put_;
  std::vector<std::string> unanswered_;
};

class StoreFaults : public ::testing::Test {
 protected:
  // Runs the work with a fault at that step. False when the work was over before the step came.
  bool runWithFault(std::uint64_t step, FaultyDisk::Fault fault) {
    SCOPED_TRACE("step " + std::to_string(step));
    const files::testing::TemporaryDirectory place;
    FaultyDisk disk(step);
    FaultyFiles files(disk);
    const FaultyVfs vfs(disk);
    Work work(step % 7);
    disk.failAt(step, fault);
    try {
      StoreOptions options;
      options.files = &files;
      options.vfs = FaultyVfs::name();
      options.reserveBytes = 4096;
      Store store(place.file("store"), options);
      work.run(store);
    } catch (const std::exception&) {
      // It could not be opened.
    }
    const bool hasFailed = disk.hasFailed();
    disk.neverFail();
    if (fault == FaultyDisk::Fault::powerLoss)
      disk.forget();
    Store reopened(place.file("store"), {.isDurable = false});
    work.expectKept(reopened);
    work.expectGoesOn(reopened);
    return hasFailed;
  }

  // Every step until the work is over without a fault.
  void runWithFaultAtEachStep(FaultyDisk::Fault fault) {
    std::uint64_t step = 1;
    while (runWithFault(step, fault) && !HasFailure())
      ++step;
    RecordProperty("steps", std::to_string(step - 1));
    EXPECT_GT(step, 100U) << "the work has steps";
  }
};

TEST_F(StoreFaults, AnyStepMayFail) {
  runWithFaultAtEachStep(FaultyDisk::Fault::once);
}

TEST_F(StoreFaults, PowerMayGoAtAnyStep) {
  runWithFaultAtEachStep(FaultyDisk::Fault::powerLoss);
}

TEST_F(StoreFaults, DiskMayBeFullFromAnyStepOn) {
  runWithFaultAtEachStep(FaultyDisk::Fault::full);
}

}  // namespace
}  // namespace parallel::scheduler::store
