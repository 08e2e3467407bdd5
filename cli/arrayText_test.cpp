#include "cli/arrayText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "cli/CliError.h"
#include "cli/formatValue.h"
#include "cli/testing/arrayParts.h"

namespace zks {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::string refusalOfLists(std::string_view text) {
  try {
    parseArrayText(text);
  } catch (const UsageError& error) {
    return error.what();
  }
  return "accepted";
}

TEST(ArrayText, NestingIsTheShapeAndTheFirstListsAreRows) {
  const auto matrix = parseArrayText("[[1,2,3],[4,5,6]]");
  EXPECT_THAT(dimensions(matrix), ElementsAre(2, 3));
  EXPECT_THAT(elements<double>(matrix), ElementsAre(1, 4, 2, 5, 3, 6));
  const auto cube = parseArrayText(" [ [[1,2],[3,4]] , [[5,6],[7,8]] ] ");
  EXPECT_THAT(dimensions(cube), ElementsAre(2, 2, 2));
  EXPECT_THAT(elements<double>(cube), ElementsAre(1, 5, 3, 7, 2, 6, 4, 8));
}

TEST(ArrayText, OneListIsAColumnAndOneNumberAScalar) {
  EXPECT_THAT(dimensions(parseArrayText("[1,2,3]")), ElementsAre(3, 1));
  EXPECT_THAT(dimensions(parseArrayText("[[1,2,3]]")), ElementsAre(1, 3));
  EXPECT_THAT(dimensions(parseArrayText("-2.5e3")), ElementsAre(1, 1));
  EXPECT_THAT(elements<double>(parseArrayText("-2.5e3")), ElementsAre(-2500));
}

TEST(ArrayText, EmptyListsKeepTheirShape) {
  EXPECT_THAT(dimensions(parseArrayText("[]")), ElementsAre(0, 1));
  EXPECT_THAT(dimensions(parseArrayText("[[],[]]")), ElementsAre(2, 0));
}

TEST(ArrayText, ClassesKeepEveryBitOfTheirValues) {
  EXPECT_THAT(elements<std::int64_t>(parseArrayText("int64:[9007199254740993,-9223372036854775808]")),
              ElementsAre(9007199254740993, std::numeric_limits<std::int64_t>::min()));
  EXPECT_THAT(elements<std::uint64_t>(parseArrayText("uint64:18446744073709551615")),
              ElementsAre(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_THAT(elements<float>(parseArrayText("float32:[0.1]")), ElementsAre(0.1F));
  EXPECT_THAT(elements<std::int8_t>(parseArrayText("int8:[-128,127]")), ElementsAre(-128, 127));
}

TEST(ArrayText, BooleansTextAndUnusualNumbersAreKnown) {
  const auto flags = parseArrayText("[true,false]");
  EXPECT_EQ(qxGetClass(flags.get()), qxClass::Boolean);
  EXPECT_THAT(elements<bool>(flags), ElementsAre(true, false));
  EXPECT_EQ(qxGetStringUtf8(parseArrayText("\"h\xC3\xA9 [1]\"").get()), "h\xC3\xA9 [1]");
  const auto values = elements<double>(parseArrayText("[inf,-inf,nan]"));
  EXPECT_EQ(values[0], std::numeric_limits<double>::infinity());
  EXPECT_EQ(values[1], -std::numeric_limits<double>::infinity());
  EXPECT_TRUE(std::isnan(values[2]));
}

TEST(ArrayText, RefusalsSayWhatIsWrong) {
  const struct {
    const char* text;
    const char* reason;
  } cases[] = {
      {"", "a number is missing"},
      {"[1,2", "comma or ] is missing"},
      {"[1 2]", "comma or ] is missing"},
      {"[1,,2]", "a number is missing"},
      {"[1,]", "a number is missing"},
      {"[1],2", "more after the end"},
      {"[[1,2],[3]]", "different lengths, 2 and 1"},
      {"[1,[2]]", "a list stands where a number"},
      {"[[1],2]", "a number stands where a list"},
      {"[[],1]", "a number stands where a list"},
      {"[x]", "\"x\" is not a number of class float64"},
      {"[1,true]", "\"true\" is not a number"},
      {"[true,1]", "neither true nor false"},
      {"int8:[128]", "\"128\" does not fit the class int8"},
      {"uint8:[-1]", "\"-1\" is not a number of class uint8"},
      {"int32:[1.5]", "\"1.5\" is not a number of class int32"},
      {"complex:[1]", "\"complex\" is not a class"},
  };
  for (const auto& [text, reason] : cases)
    EXPECT_THAT(refusalOfLists(text), HasSubstr(reason)) << text;
  EXPECT_THAT(refusalOfLists(std::string(40, '[')), HasSubstr("nest deeper than 32"));
}

TEST(ArrayText, WhatIsFormattedIsReadBack) {
  for (const char* text : {"[[1, 2, 3], [4, 5, 6]]", "[[[1, 2], [3, 4]]]", "[1, 2.5, -3]", "7", "[]", "[[], []]",
                           "[true, false]", "\"words\"", "[inf, nan]"})
    EXPECT_EQ(formatValue(parseArrayText(text).get()), text);
}

}  // namespace
}  // namespace zks
