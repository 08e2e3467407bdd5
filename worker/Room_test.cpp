#include "worker/Room.h"

#include <gtest/gtest.h>

namespace parallel::worker {
namespace {

using zksmessages::Resources;

Resources resources(std::uint32_t cores, std::uint64_t memory, std::uint64_t gpus) {
  Resources result;
  result.set_cores(cores);
  result.set_memory_bytes(memory);
  if (gpus > 0)
    (*result.mutable_named())["gpu"] = gpus;
  return result;
}

TEST(Room, CoversWhatFits) {
  EXPECT_TRUE(covers(resources(2, 10, 1), resources(2, 10, 1)));
  EXPECT_FALSE(covers(resources(2, 10, 1), resources(3, 10, 1)));
  EXPECT_FALSE(covers(resources(2, 10, 1), resources(2, 11, 1)));
  EXPECT_FALSE(covers(resources(2, 10, 0), resources(1, 1, 1)));
}

TEST(Room, IsAddedAndTaken) {
  Resources room = resources(2, 10, 1);
  add(room, times(resources(2, 10, 1), 1.5));
  EXPECT_EQ(room.cores(), 5U);
  EXPECT_EQ(room.memory_bytes(), 25U);
  subtract(room, resources(6, 5, 1));
  EXPECT_EQ(room.cores(), 0U);
  EXPECT_EQ(room.memory_bytes(), 20U);
  EXPECT_EQ(room.named().at("gpu"), 1U);
}

TEST(WorkMeasure, ShortWorkIsTakenAheadAndLongWorkIsNot) {
  WorkMeasure measure;
  EXPECT_EQ(measure.attemptsAhead(2), 0U);
  for (int i = 0; i < 100; ++i)
    measure.ran(0.01);
  EXPECT_NEAR(measure.attemptsAhead(2), 198, 2);
  measure.ran(10);
  EXPECT_EQ(measure.attemptsAhead(2), 0U);
}

}  // namespace
}  // namespace parallel::worker
