#include "platform/protobufencoding/internal/numericConversion.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>

namespace parallel::protobufencoding {
namespace {

template <class To, class From>
std::optional<To> converted(From from) {
  To to{};
  return convertNumber(from, to) ? std::optional<To>(to) : std::nullopt;
}

TEST(NumericConversion, Float64BecomesAnIntegerOnlyWhenItIsOneInRange) {
  EXPECT_EQ(converted<std::int32_t>(2147483647.0), 2147483647);
  EXPECT_EQ(converted<std::int32_t>(-2147483648.0), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(converted<std::int32_t>(2147483648.0), std::nullopt);
  EXPECT_EQ(converted<std::int32_t>(-2147483649.0), std::nullopt);
  EXPECT_EQ(converted<std::int32_t>(0.5), std::nullopt);
  EXPECT_EQ(converted<std::int32_t>(std::numeric_limits<double>::quiet_NaN()), std::nullopt);
  EXPECT_EQ(converted<std::int32_t>(std::numeric_limits<double>::infinity()), std::nullopt);
  EXPECT_EQ(converted<std::int64_t>(9223372036854774784.0), 9223372036854774784);
  EXPECT_EQ(converted<std::int64_t>(9223372036854775808.0), std::nullopt);
  EXPECT_EQ(converted<std::int64_t>(-9223372036854775808.0), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(converted<std::uint64_t>(18446744073709549568.0), 18446744073709549568ULL);
  EXPECT_EQ(converted<std::uint64_t>(18446744073709551616.0), std::nullopt);
  EXPECT_EQ(converted<std::uint32_t>(-1.0), std::nullopt);
  EXPECT_EQ(converted<std::uint32_t>(-0.0), 0U);
}

TEST(NumericConversion, IntegersBecomeOtherIntegersInRange) {
  EXPECT_EQ(converted<std::int32_t>(std::uint64_t{5}), 5);
  EXPECT_EQ(converted<std::int32_t>(std::uint32_t{2147483648U}), std::nullopt);
  EXPECT_EQ(converted<std::uint32_t>(std::int8_t{-1}), std::nullopt);
  EXPECT_EQ(converted<std::uint64_t>(std::int64_t{-1}), std::nullopt);
}

TEST(NumericConversion, IntegersBecomeFloatsWhenExact) {
  EXPECT_EQ(converted<double>(std::int64_t{9007199254740992}), 9007199254740992.0);
  EXPECT_EQ(converted<double>(std::int64_t{9007199254740993}), std::nullopt);
  EXPECT_EQ(converted<double>(std::numeric_limits<std::int64_t>::max()), std::nullopt);
  EXPECT_EQ(converted<double>(std::numeric_limits<std::uint64_t>::max()), std::nullopt);
  EXPECT_EQ(converted<double>(std::numeric_limits<std::int64_t>::min()), -9223372036854775808.0);
  EXPECT_EQ(converted<float>(std::int32_t{16777217}), std::nullopt);
}

TEST(NumericConversion, Float64IsRoundedToFloat32ButNotToInfinity) {
  EXPECT_EQ(converted<float>(0.1), 0.1F);
  EXPECT_EQ(converted<float>(1e300), std::nullopt);
  EXPECT_EQ(converted<float>(std::numeric_limits<double>::infinity()), std::numeric_limits<float>::infinity());
  EXPECT_TRUE(std::isnan(converted<float>(std::numeric_limits<double>::quiet_NaN()).value()));
  EXPECT_EQ(converted<double>(0.1F), static_cast<double>(0.1F));
}

TEST(NumericConversion, NumbersArePrintedShort) {
  EXPECT_EQ(numberText(0.1), "0.1");
  EXPECT_EQ(numberText(std::uint8_t{200}), "200");
}

}  // namespace
}  // namespace parallel::protobufencoding
