#include "platform/tova/utMemory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <new>

#include "platform/errors/IException.h"
#include "platform/tova/testing/CountingAllocator.h"

namespace {

TEST(UtMemory, RoomIsZeroFilledEvenWhenUsedBefore) {
  for (int round = 0; round < 8; ++round) {
    auto* room = static_cast<unsigned char*>(utCalloc(3, 1000));
    EXPECT_TRUE(std::all_of(room, room + 3000, [](unsigned char byte) { return byte == 0; }));
    std::fill(room, room + 3000, static_cast<unsigned char>(0xAB));
    utFree(room);
  }
}

TEST(UtMemory, FreeOfNullIsAccepted) {
  tova::testing::CountingAllocator counting;
  utFree(nullptr);
  EXPECT_EQ(counting.outstanding(), 0U);
}

TEST(UtMemory, NoRoomThrowsTheHostsOutOfMemory) {
  tova::testing::CountingAllocator counting;
  counting.failAt(1);
  try {
    utCalloc(2, 21);
    FAIL() << "nothing thrown";
  } catch (const std::bad_alloc& error) {
    const auto* identified = dynamic_cast<const IException*>(&error);
    ASSERT_NE(identified, nullptr);
    EXPECT_EQ(identified->identifier(), "host:memory:OutOfMemory");
    EXPECT_STREQ(error.what(), "Out of memory: 42 bytes were needed.");
  }
  EXPECT_EQ(counting.outstanding(), 0U);
}

TEST(UtMemory, ProductPastTheAddressSpaceIsOutOfMemory) {
  EXPECT_THROW(utCalloc(std::numeric_limits<std::size_t>::max() / 2, 3), std::bad_alloc);
}

}  // namespace
