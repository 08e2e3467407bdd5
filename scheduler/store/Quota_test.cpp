#include "scheduler/store/Quota.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/files/testing/TemporaryDirectory.h"

namespace parallel::scheduler::store {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

TEST(Quota, RoomShrinksAtNinetyAndNinetyFivePercent) {
  const files::testing::TemporaryDirectory place;
  Quota quota(place.path(), {.bytes = 1000, .files = {}});
  const auto roomAt = [&](std::uint64_t bytes) {
    quota.give({1'000'000, 0});
    quota.take({bytes, 0});
    return quota.room();
  };
  EXPECT_EQ(roomAt(0), Room::plenty);
  EXPECT_EQ(roomAt(899), Room::plenty);
  EXPECT_EQ(roomAt(900), Room::noSubmissions);
  EXPECT_EQ(roomAt(949), Room::noSubmissions);
  EXPECT_EQ(roomAt(950), Room::noGrants);
  EXPECT_EQ(roomAt(999), Room::noGrants);
  EXPECT_EQ(roomAt(1000), Room::none);
}

TEST(Quota, FilesCountAsBytesDo) {
  const files::testing::TemporaryDirectory place;
  Quota quota(place.path(), {.bytes = {}, .files = 100});
  quota.take({0, 90});
  EXPECT_EQ(quota.room(), Room::noSubmissions);
  quota.take({0, 10});
  EXPECT_EQ(quota.room(), Room::none);
  EXPECT_THROW(quota.take({0, 1}), Exception<parallel::store::QuotaExceeded>);
  quota.give({0, 50});
  EXPECT_EQ(quota.room(), Room::plenty);
}

TEST(Quota, WhatIsTooMuchIsRefusedWhole) {
  const files::testing::TemporaryDirectory place;
  Quota quota(place.path(), {.bytes = 1000, .files = 10});
  quota.take({999, 3});
  EXPECT_THAT(
      [&] {
        quota.take({2, 1});
      },
      ThrowsMessage<Exception<parallel::store::QuotaExceeded>>(
          HasSubstr("takes no more blobs: 999 of 1000 bytes and 3 of 10 files are used")));
  quota.take({1, 1});
  EXPECT_EQ(quota.used().bytes, 1000U);
  EXPECT_EQ(quota.used().files, 4U);
}

TEST(Quota, WhatIsThereAlreadyIsCountedWhateverTheLimit) {
  const files::testing::TemporaryDirectory place;
  Quota quota(place.path(), {.bytes = 10, .files = {}});
  quota.note({100, 1});
  EXPECT_EQ(quota.room(), Room::none);
}

TEST(Quota, DiskItselfBoundsWhatHasNoLimit) {
  const files::testing::TemporaryDirectory place;
  Quota quota(place.path(), {});
  EXPECT_THROW(quota.take({std::uint64_t{1} << 60, 0}), Exception<parallel::store::QuotaExceeded>);
}

}  // namespace
}  // namespace parallel::scheduler::store
