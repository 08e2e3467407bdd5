#include "scheduler/store/BlobStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "scheduler/store/testing/OpenStore.h"

namespace parallel::scheduler::store {
namespace {

namespace fs = std::filesystem;
using testing::contentOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::minute;
using testing::OpenStore;
using testing::patternOf;
using ::testing::ThrowsMessage;

constexpr std::uint64_t kSmall = BlobStore::kSmallBytes;
constexpr std::uint64_t kLarge = kSmall + 100'000;

class BlobStoreTest : public ::testing::Test {
 protected:
  Store& store() { return *open_; }
  BlobStore& blobs() { return open_->blobs(); }
  fs::path fileOf(const Digest& digest) const {
    return open_.folder() / "blobs" / digest.text().substr(0, 2) / digest.text().substr(2);
  }
  std::size_t uploads() const {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(open_.folder() / "uploads"), fs::directory_iterator()));
  }
  std::string put(const std::string& content, int now = 0) {
    blobs().put("holder", content, minute(now));
    return content;
  }

  OpenStore open_{StoreOptions{.isDurable = false}};
};

TEST_F(BlobStoreTest, BytesComeOutAsTheyWentInAroundTheBorderOfSmallOnes) {
  for (const std::uint64_t nbytes : {std::uint64_t{0}, std::uint64_t{1}, kSmall - 1, kSmall, kSmall + 1, kLarge}) {
    const std::string content = put(patternOf(nbytes));
    const Digest digest = Digest::of(content);
    EXPECT_EQ(contentOf(blobs(), digest), content) << nbytes;
    EXPECT_EQ(fs::exists(fileOf(digest)), nbytes > kSmall) << nbytes;
    EXPECT_EQ(blobs().received("anybody", digest), nbytes);
  }
  EXPECT_EQ(uploads(), 0U);
}

TEST_F(BlobStoreTest, BlobsSurviveARestartAndAreCountedAgain) {
  const std::string small = put(patternOf(1000));
  const std::string large = put(patternOf(kLarge));
  const std::string before = store().roomText();
  open_.reopen();
  EXPECT_EQ(contentOf(blobs(), Digest::of(small)), small);
  EXPECT_EQ(contentOf(blobs(), Digest::of(large)), large);
  EXPECT_THAT(store().roomText(), ::testing::StartsWith(std::to_string(1000 + kLarge) + " of "));
  EXPECT_THAT(before, ::testing::StartsWith(std::to_string(1000 + kLarge) + " of "));
}

TEST_F(BlobStoreTest, SameBlobIsKeptOnce) {
  for (const std::uint64_t nbytes : {kSmall, kLarge}) {
    const std::string content = patternOf(nbytes);
    blobs().put("one", content, minute(0));
    const std::string once = store().roomText();
    blobs().put("other", content, minute(0));
    EXPECT_EQ(store().roomText().substr(0, 8), once.substr(0, 8));
  }
  EXPECT_EQ(uploads(), 0U);
}

TEST_F(BlobStoreTest, ReaderBeginsAnywhere) {
  for (const std::uint64_t nbytes : {std::uint64_t{5000}, kLarge}) {
    const std::string content = put(patternOf(nbytes));
    for (const std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{1}, nbytes - 1, nbytes, nbytes + 10}) {
      const auto reader = blobs().open(Digest::of(content), minute(0));
      reader->skipTo(offset);
      const std::string rest = reader->read(nbytes + 1);
      EXPECT_EQ(rest, offset < nbytes ? content.substr(offset) : "") << offset;
      EXPECT_EQ(reader->read(1), "");
    }
  }
}

TEST_F(BlobStoreTest, UploadGoesOnWhereItWasCutOffAlsoAfterARestart) {
  const std::string content = patternOf(kLarge);
  const Digest digest = Digest::of(content);
  constexpr std::size_t kPiece = 30'000;
  for (std::uint64_t done = 0; done < kLarge; done = blobs().received("holder", digest)) {
    const auto upload = blobs().upload("holder", digest, kLarge, done);
    const std::string piece = content.substr(done, kPiece);
    upload->write(piece);
    if (done + piece.size() == kLarge)
      upload->finish(minute(0));
    else if (done == 2 * kPiece)
      open_.reopen();
  }
  EXPECT_EQ(contentOf(blobs(), digest), content);
}

TEST_F(BlobStoreTest, UploadAtAnotherOffsetIsToldWhereItEnded) {
  const Digest digest = Digest::of(patternOf(kLarge));
  blobs().upload("holder", digest, kLarge, 0)->write(std::string(10, 'x'));
  EXPECT_THAT([&] { blobs().upload("holder", digest, kLarge, 9); },
              ThrowsMessage<Exception<parallel::store::BadUploadOffset>>(
                  HasSubstr("goes on at byte 10, and what was sent begins at byte 9")));
  EXPECT_EQ(blobs().received("another", digest), 0U) << "an upload belongs to its holder";
}

TEST_F(BlobStoreTest, OtherBytesAreRefusedAndTheUploadBeginsAnew) {
  for (const std::uint64_t nbytes : {std::uint64_t{1000}, kLarge}) {
    const std::string content = patternOf(nbytes);
    const Digest digest = Digest::of(content);
    const auto send = [&](const std::string& sent) {
      const auto upload = blobs().upload("holder", digest, nbytes, 0);
      upload->write(sent);
      upload->finish(minute(0));
    };
    EXPECT_THAT([&] { send(patternOf(nbytes, 1)); },
                ThrowsMessage<Exception<parallel::store::BlobMismatch>>(HasSubstr("its digest is another one")));
    EXPECT_THAT([&] { send(content + "x"); },
                ThrowsMessage<Exception<parallel::store::BlobMismatch>>(HasSubstr("more than its")));
    EXPECT_THAT([&] { send(content.substr(1)); },
                ThrowsMessage<Exception<parallel::store::BlobMismatch>>(HasSubstr("bytes were sent")));
    EXPECT_THROW(blobs().open(digest, minute(0)), Exception<parallel::store::NoSuchBlob>);
    send(content);
    EXPECT_EQ(contentOf(blobs(), digest), content);
  }
  EXPECT_EQ(uploads(), 0U);
}

TEST_F(BlobStoreTest, MissingOnesAreNamedAndPinnedForWhenTheyCome) {
  const std::string there = put("there");
  const Digest missing = Digest::of("missing");
  EXPECT_THAT(blobs().pin("job", {Digest::of(there), missing}, minute(0)), ElementsAre(missing));
  blobs().put("sender", "missing", minute(0));
  blobs().unpin("sender", minute(0));
  blobs().unpin("holder", minute(0));
  EXPECT_EQ(blobs().collect(minute(1000)).blobs, 0U);
  blobs().unpin("job", minute(1000));
  EXPECT_EQ(blobs().collect(minute(2000)).blobs, 2U);
}

TEST_F(BlobStoreTest, UnpinnedOneGoesAnHourAfterItsLastUse) {
  for (const std::uint64_t nbytes : {kSmall, kLarge}) {
    const std::string content = put(patternOf(nbytes));
    const Digest digest = Digest::of(content);
    EXPECT_EQ(blobs().collect(minute(1000)).blobs, 0U);
    blobs().unpin("holder", minute(1000));
    contentOf(blobs(), digest, minute(1050));
    EXPECT_EQ(blobs().collect(minute(1110)).blobs, 0U);
    EXPECT_EQ(blobs().collect(minute(1111)).blobs, 1U);
    EXPECT_THROW(blobs().open(digest, minute(1111)), Exception<parallel::store::NoSuchBlob>);
    EXPECT_FALSE(fs::exists(fileOf(digest)));
  }
  EXPECT_THAT(store().roomText(), ::testing::StartsWith("0 of "));
  EXPECT_EQ(uploads(), 0U);
}

TEST_F(BlobStoreTest, UploadThatPausesForADayExpires) {
  const Digest digest = Digest::of(patternOf(kLarge));
  blobs().upload("holder", digest, kLarge, 0)->write(std::string(10, 'x'));
  const auto now = std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now());
  EXPECT_EQ(blobs().collect(now).uploads, 0U);
  EXPECT_EQ(blobs().collect(now + std::chrono::hours(25)).uploads, 1U);
  EXPECT_EQ(blobs().received("holder", digest), 0U);
  EXPECT_THAT(store().roomText(), ::testing::StartsWith("0 of "));
}

TEST_F(BlobStoreTest, FileThatNoRowNamesIsSwept) {
  const std::string content = put(patternOf(kLarge));
  const Digest digest = Digest::of(content);
  const Digest stray = Digest::of("stray");
  fs::create_directories(fileOf(stray).parent_path());
  std::ofstream(fileOf(stray)) << "stray";
  EXPECT_EQ(blobs().sweepFiles(), 1U);
  EXPECT_FALSE(fs::exists(fileOf(stray)));
  EXPECT_EQ(blobs().sweepFiles(), 0U);
  EXPECT_EQ(contentOf(blobs(), digest), content);
}

TEST_F(BlobStoreTest, DamageIsFoundBeforeTheLastPieceAndTheBlobCanBePutAgain) {
  const std::string content = patternOf(kLarge);
  const Digest digest = Digest::of(content);
  const auto damage = [&](const std::string& what, const std::function<void()>& inflict) {
    put(content);
    inflict();
    EXPECT_THAT(blobs().check(), ::testing::SizeIs(1)) << what;
    EXPECT_THAT([&] { contentOf(blobs(), digest); },
                ThrowsMessage<Exception<parallel::store::BlobDamaged>>(HasSubstr(what)));
    EXPECT_THAT(blobs().pin("job", {digest}, minute(0)), ElementsAre(digest)) << what;
  };
  const fs::path file = fileOf(digest);
  damage("its file is gone", [&] { fs::remove(file); });
  damage("only 100 of its", [&] { fs::resize_file(file, 100); });
  damage("its bytes have changed", [&] {
    std::fstream bytes(file, std::ios::in | std::ios::out | std::ios::binary);
    bytes.seekp(70'000);
    bytes.put('!');
  });
  put(content);
  EXPECT_EQ(contentOf(blobs(), digest), content);
  EXPECT_THAT(blobs().check(), IsEmpty());
}

TEST_F(BlobStoreTest, QuotaRefusesAndForgetsWhatItRefused) {
  open_.options().quota.bytes = kLarge + 1000;
  open_.reopen();
  const std::string content = put(patternOf(kLarge));
  EXPECT_THROW(put(patternOf(1001)), Exception<parallel::store::QuotaExceeded>);
  put(patternOf(1000));
  EXPECT_EQ(store().room(), Room::none);
  EXPECT_EQ(contentOf(blobs(), Digest::of(content)), content);
}

TEST_F(BlobStoreTest, ManyPutReadAndCollectAtOnce) {
  std::vector<std::thread> threads;
  for (char own = 0; own < 4; ++own) {
    threads.emplace_back([&, own] {
      const Holder holder(1, own);
      for (int round = 0; round < 20; ++round) {
        const std::string content = patternOf(round % 2 == 0 ? 500 : kLarge, static_cast<char>(own / 2));
        blobs().put(holder, content, minute(0));
        EXPECT_EQ(contentOf(blobs(), Digest::of(content)), content);
        blobs().unpin(holder, minute(0));
        blobs().put(holder, content, minute(0));
        blobs().collect(minute(1000));
        EXPECT_EQ(contentOf(blobs(), Digest::of(content)), content);
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_THAT(store().check(), IsEmpty());
}

}  // namespace
}  // namespace parallel::scheduler::store
