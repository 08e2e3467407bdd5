#include "cli/jsonType.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/CliError.h"

namespace zks {
namespace {

using testing::HasSubstr;

void expectSplit(std::string_view json, const std::string& name, const std::string& body) {
  const TypedJson typed = splitJsonType(json);
  EXPECT_EQ(typed.typeName, name) << json;
  EXPECT_EQ(typed.body, body) << json;
}

std::string refusalOf(std::string_view json) {
  try {
    splitJsonType(json);
  } catch (const UsageError& error) {
    return error.what();
  }
  return "accepted";
}

TEST(JsonType, MemberGoesWithOneCommaWhereverItStands) {
  expectSplit(R"({"@type":"a.B"})", "a.B", "{}");
  expectSplit(R"({"@type":"a.B","x":1})", "a.B", R"({"x":1})");
  expectSplit(R"({"x":1,"@type":"a.B"})", "a.B", R"({"x":1})");
  expectSplit(R"({"x":1, "@type" : "a.B" , "y":2})", "a.B", R"({"x":1,  "y":2})");
  expectSplit(R"( { "x":1 , "@type":"a.B" } )", "a.B", R"( { "x":1 } )");
}

TEST(JsonType, UrlBeforeTheNameIsLeftOut) {
  expectSplit(R"({"@type":"type.googleapis.com/a.B"})", "a.B", "{}");
}

TEST(JsonType, OtherMembersKeepEveryCharacter) {
  expectSplit(R"({"n":18446744073709551615,"@type":"B","s":"},\"@type\":{[","o":{"@type":"C","l":[{},[1]]}})", "B",
              R"({"n":18446744073709551615,"s":"},\"@type\":{[","o":{"@type":"C","l":[{},[1]]}})");
}

TEST(JsonType, RefusalsSayWhatIsMissing) {
  EXPECT_THAT(refusalOf(""), HasSubstr("not a JSON object"));
  EXPECT_THAT(refusalOf("[1]"), HasSubstr("not a JSON object"));
  EXPECT_THAT(refusalOf("{}"), HasSubstr("no member \"@type\""));
  EXPECT_THAT(refusalOf(R"({"x":{"@type":"B"}})"), HasSubstr("no member \"@type\""));
  EXPECT_THAT(refusalOf(R"({"@type":1})"), HasSubstr("not the name"));
  EXPECT_THAT(refusalOf(R"({"@type":""})"), HasSubstr("not the name"));
  EXPECT_THAT(refusalOf(R"({"@type":"A","@type":"B"})"), HasSubstr("twice"));
  EXPECT_THAT(refusalOf(R"({"@type)"), HasSubstr("does not end"));
  EXPECT_THAT(refusalOf(R"({"@type\)"), HasSubstr("does not end"));
  EXPECT_THAT(refusalOf(R"({"@type" "B"})"), HasSubstr("':' is missing"));
  EXPECT_THAT(refusalOf(R"({x:1})"), HasSubstr("name in quotes"));
}

}  // namespace
}  // namespace zks
