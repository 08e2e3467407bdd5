#include "cli/Json.h"

#include <gtest/gtest.h>

namespace zks {
namespace {

TEST(Json, TextsAreEscaped) {
  EXPECT_EQ(jsonText(""), "\"\"");
  EXPECT_EQ(jsonText("a\"b\\c\nd\te\x7F ä"), "\"a\\\"b\\\\c\\nd\\u0009e\\u007f ä\"");
  EXPECT_EQ(jsonText(std::string_view("\0", 1)), "\"\\u0000\"");
}

TEST(Json, ObjectsKeepTheOrderOfTheirMembers) {
  JsonObject object;
  object.add("b", "x").add("a", std::uint64_t{18446744073709551615U}).add("c", std::int64_t{-1}).add("d", true);
  object.add("e", 1.5).add("f", std::optional<std::uint64_t>()).add("g", std::optional<std::uint64_t>(3));
  object.addRaw("h", JsonObject().text());
  EXPECT_EQ(object.text(),
            R"({"b": "x", "a": 18446744073709551615, "c": -1, "d": true, "e": 1.5, "f": null, "g": 3, "h": {}})");
}

TEST(Json, ListsHaveAnEntryInEachLine) {
  EXPECT_EQ(jsonList({}), "[]\n");
  EXPECT_EQ(jsonList({"1"}), "[\n  1\n]\n");
  EXPECT_EQ(jsonList({"1", "{}"}), "[\n  1,\n  {}\n]\n");
}

}  // namespace
}  // namespace zks
