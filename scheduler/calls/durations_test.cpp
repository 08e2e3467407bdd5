#include "scheduler/calls/durations.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace parallel::scheduler {
namespace {

using namespace std::chrono_literals;
using google::protobuf::Duration;

Duration durationOf(std::int64_t seconds, std::int32_t nanos) {
  Duration duration;
  duration.set_seconds(seconds);
  duration.set_nanos(nanos);
  return duration;
}

TEST(Durations, ConvertBothWays) {
  for (const std::chrono::nanoseconds time : {0ns, 1ns, 999'999'999ns, 1'000'000'000ns, 90'061'000'000'002ns})
    EXPECT_EQ(fromMessage(toMessage(time)), time);
  EXPECT_EQ(fromMessage(durationOf(2, 500'000'000)), 2500ms);
}

TEST(Durations, LongerThanNanosecondsCountIsClampedAndPositive) {
  EXPECT_GT(fromMessage(durationOf(315'576'000'000, 999'999'999)), std::chrono::hours(24 * 365 * 290));
}

TEST(Durations, PositiveMeansInRangeAndAboveZero) {
  EXPECT_TRUE(isPositiveDuration(durationOf(0, 1)));
  EXPECT_TRUE(isPositiveDuration(durationOf(1, 0)));
  EXPECT_TRUE(isPositiveDuration(durationOf(315'576'000'000, 999'999'999)));
  EXPECT_FALSE(isPositiveDuration(durationOf(0, 0)));
  EXPECT_FALSE(isPositiveDuration(durationOf(1, -1)));
  EXPECT_FALSE(isPositiveDuration(durationOf(-1, 5)));
  EXPECT_FALSE(isPositiveDuration(durationOf(1, 1'000'000'000)));
  EXPECT_FALSE(isPositiveDuration(durationOf(315'576'000'001, 0)));
}

}  // namespace
}  // namespace parallel::scheduler
