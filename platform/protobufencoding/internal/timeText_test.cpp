#include "platform/protobufencoding/internal/timeText.h"

#include <gtest/gtest.h>

#include <random>

namespace parallel::protobufencoding {
namespace {

TEST(TimeText, TimestampsHaveAsManyThreesOfDigitsAsTheyNeed) {
  EXPECT_EQ(formatTimestamp({0, 0}), "1970-01-01T00:00:00Z");
  EXPECT_EQ(formatTimestamp({0, 500'000'000}), "1970-01-01T00:00:00.500Z");
  EXPECT_EQ(formatTimestamp({0, 1'000}), "1970-01-01T00:00:00.000001Z");
  EXPECT_EQ(formatTimestamp({0, 1}), "1970-01-01T00:00:00.000000001Z");
  EXPECT_EQ(formatTimestamp({951782400, 0}), "2000-02-29T00:00:00Z");
}

TEST(TimeText, TimestampsReachFromTheFirstToTheLastYear) {
  EXPECT_EQ(formatTimestamp({-62135596800, 0}), "0001-01-01T00:00:00Z");
  EXPECT_EQ(formatTimestamp({253402300799, 999'999'999}), "9999-12-31T23:59:59.999999999Z");
  EXPECT_EQ(formatTimestamp({-62135596801, 0}), std::nullopt);
  EXPECT_EQ(formatTimestamp({253402300800, 0}), std::nullopt);
  EXPECT_EQ(formatTimestamp({0, -1}), std::nullopt);
  EXPECT_EQ(formatTimestamp({0, 1'000'000'000}), std::nullopt);
}

TEST(TimeText, DurationsCarryTheSignOnce) {
  EXPECT_EQ(formatDuration({0, 0}), "0s");
  EXPECT_EQ(formatDuration({-1, -500'000'000}), "-1.500s");
  EXPECT_EQ(formatDuration({0, -1}), "-0.000000001s");
  EXPECT_EQ(formatDuration({315576000000, 0}), "315576000000s");
  EXPECT_EQ(formatDuration({315576000001, 0}), std::nullopt);
  EXPECT_EQ(formatDuration({-315576000001, 0}), std::nullopt);
  EXPECT_EQ(formatDuration({1, -1}), std::nullopt);
  EXPECT_EQ(formatDuration({-1, 1}), std::nullopt);
  EXPECT_EQ(formatDuration({0, 1'000'000'000}), std::nullopt);
}

TEST(TimeText, TimestampsAreReadWithOffsetsAndAnyNumberOfDigits) {
  EXPECT_EQ(parseTimestamp("1970-01-01T01:00:00+01:00"), (SecondsAndNanos{0, 0}));
  EXPECT_EQ(parseTimestamp("1969-12-31T23:30:00-00:30"), (SecondsAndNanos{0, 0}));
  EXPECT_EQ(parseTimestamp("1970-01-01T00:00:00.5Z"), (SecondsAndNanos{0, 500'000'000}));
  EXPECT_EQ(parseTimestamp("1969-12-31T23:59:59.25Z"), (SecondsAndNanos{-1, 250'000'000}));
}

TEST(TimeText, OtherTextsAreNotTimestamps) {
  for (const char* text : {"",
                           "Z",
                           "1970-01-01",
                           "1970-01-01T00:00:00",
                           "1970-01-01 00:00:00Z",
                           "1970-1-01T00:00:00Z",
                           "1970-02-30T00:00:00Z",
                           "1970-13-01T00:00:00Z",
                           "1970-01-01T24:00:00Z",
                           "1970-01-01T00:60:00Z",
                           "1970-01-01T00:00:60Z",
                           "1970-01-01T00:00:00.Z",
                           "1970-01-01T00:00:00.1234567890Z",
                           "1970-01-01T00:00:00Zz",
                           "1970-01-01T00:00:00+1:00",
                           "1970-01-01T00:00:00+24:00",
                           "0000-12-31T00:00:00Z",
                           "0001-01-01T00:00:00+00:01",
                           "9999-12-31T23:59:59-00:01",
                           "10000-01-01T00:00:00Z"})
    EXPECT_EQ(parseTimestamp(text), std::nullopt) << text;
}

TEST(TimeText, OtherTextsAreNotDurations) {
  for (const char* text : {"", "s", "1", "1 s", "--1s", "+1s", "1.s", ".5s", "1.1234567890s", "315576000001s", "1sx",
                           "99999999999999999999s"})
    EXPECT_EQ(parseDuration(text), std::nullopt) << text;
}

TEST(TimeText, RandomTimesComeBack) {
  std::mt19937_64 engine(1);
  std::uniform_int_distribution<std::int64_t> seconds(-62135596800, 253402300799);
  std::uniform_int_distribution<std::int32_t> nanos(0, 999'999'999);
  for (int i = 0; i < 20000; ++i) {
    const SecondsAndNanos time{seconds(engine), i % 3 == 0 ? 0 : nanos(engine)};
    EXPECT_EQ(parseTimestamp(formatTimestamp(time).value()), time);
    const SecondsAndNanos duration = time.seconds < 0 ? SecondsAndNanos{time.seconds, -time.nanos} : time;
    EXPECT_EQ(parseDuration(formatDuration(duration).value()), duration);
  }
}

}  // namespace
}  // namespace parallel::protobufencoding
