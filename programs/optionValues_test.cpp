#include "programs/optionValues.h"

#include <gtest/gtest.h>

#include <limits>

namespace programs {
namespace {

// What the check makes of the text, or its refusal.
std::string outcome(const OptionCheck& check, std::string text) {
  const std::string refusal = check(text);
  return refusal.empty() ? text : "refused: " + refusal;
}

bool takes(const OptionCheck& check, std::string text) {
  return check(text).empty();
}

TEST(OptionValues, SizesBecomeBytes) {
  EXPECT_EQ(outcome(sizeInBytes(), "0"), "0");
  EXPECT_EQ(outcome(sizeInBytes(), "1000000"), "1000000");
  EXPECT_EQ(outcome(sizeInBytes(), "512M"), "536870912");
  EXPECT_EQ(outcome(sizeInBytes(), "2GiB"), "2147483648");
  EXPECT_EQ(outcome(sizeInBytes(), "3kb"), "3072");
  EXPECT_EQ(outcome(sizeInBytes(), "7E"), std::to_string(std::uint64_t{7} << 60));
}

TEST(OptionValues, SizesThatAreNoneAreRefused) {
  for (const char* text : {"", "M", "-1", "1.5M", "1X", "1MM", "8E", "9223372036854775808", "1 M"})
    EXPECT_EQ(outcome(sizeInBytes(), text),
              "refused: \"" + std::string(text) + "\" is not a number of bytes such as 1000000, 512M or 2G");
  EXPECT_EQ(outcome(sizeInBytes(1), "0"),
            "refused: \"0\" is not a number of bytes above 0 such as 1000000, 512M or 2G");
}

TEST(OptionValues, NumbersHaveBothBorders) {
  const OptionCheck port = wholeNumber(1, 65535);
  EXPECT_TRUE(takes(port, "1") && takes(port, "65535"));
  EXPECT_EQ(outcome(port, "0"), "refused: \"0\" is not a whole number from 1 to 65535");
  EXPECT_FALSE(takes(port, "65536") || takes(port, "1.0") || takes(port, " 1") || takes(port, ""));
}

TEST(OptionValues, SecondsHaveBothBorders) {
  EXPECT_TRUE(takes(secondsFromZero(), "0") && takes(secondsFromZero(), "0.25") && takes(secondsFromZero(), "1e9"));
  EXPECT_FALSE(takes(secondsFromZero(), "-0.1") || takes(secondsFromZero(), "nan") || takes(secondsFromZero(), "1s"));
  EXPECT_TRUE(takes(secondsAboveZero(), "1e-3"));
  EXPECT_FALSE(takes(secondsAboveZero(), "0") || takes(secondsAboveZero(), "1e9") || takes(secondsAboveZero(), "inf"));
}

TEST(OptionValues, EmptyValueIsRefused) {
  EXPECT_TRUE(takes(notEmpty(), " "));
  EXPECT_EQ(outcome(notEmpty(), ""), "refused: its value is empty; leave the option out for the default");
}

}  // namespace
}  // namespace programs
