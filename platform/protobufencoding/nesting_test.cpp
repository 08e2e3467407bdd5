// How deep messages may lie in one another: as deep as the parser takes them.
#include <gtest/gtest.h>

#include <functional>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/testing/everything2.pb.h"
#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/golden.h"
#include "platform/protobufencoding/testing/testTypes.h"

namespace parallel::protobufencoding::testing {
namespace {

StructOf nested(int levels) {
  StructOf value = structOf("Tree");
  for (int i = 0; i < levels; ++i)
    value = structOf("Tree").with("child", std::move(value));
  return value;
}

TEST(Nesting, MoreThanAHundredLevelsAreRefused) {
  EXPECT_NO_THROW(encode(nested(100).get(), nullptr, 0));
  try {
    encode(nested(101).get(), nullptr, 0);
    ADD_FAILURE();
  } catch (const Exception<::parallel::protobuf::EncodeError>& error) {
    EXPECT_NE(std::string(error.what()).find("found more than 100 levels of messages, wanted at most 100"),
              std::string::npos);
  }
}

// Trees around this one, one in another.
Tree wrapped(Tree tree, int levels) {
  for (int i = 0; i < levels; ++i) {
    Tree outer;
    *outer.mutable_child() = std::move(tree);
    tree = std::move(outer);
  }
  return tree;
}

TEST(Nesting, TheLevelsAreThoseThatTheParserTakes) {
  const auto message = encode(nested(100).get(), nullptr, 0);
  EXPECT_TRUE(Tree().ParseFromString(deterministic(*message)));
  EXPECT_NO_THROW(decode(*message, nullptr));
  EXPECT_FALSE(Tree().ParseFromString(deterministic(wrapped(Tree(), 101))));
  EXPECT_THROW(decode(wrapped(Tree(), 102), nullptr), Exception<::parallel::protobuf::DecodeTooDeep>);
}

// The parser gives up after it has made the first message too many.
TEST(Nesting, WhatTheParserLeavesOfTooManyLevelsCanBeDecoded) {
  Tree parsed;
  EXPECT_FALSE(parsed.ParseFromString(deterministic(wrapped(Tree(), 150))));
  const qxArrayPtr value = decode(parsed, nullptr);
  int levels = 0;
  for (const qxArray* tree = value.get(); qxHasField(tree, "child"); tree = qxGetField(tree, 0, "child"))
    ++levels;
  EXPECT_EQ(levels, 101);
}

bool comesBack(const google::protobuf::Message& message) {
  try {
    return deterministic(*encode(decode(message, nullptr).get(), nullptr, 0)) == deterministic(message);
  } catch (const Exception<::parallel::protobuf::EncodeError>&) {
    return false;
  } catch (const Exception<::parallel::protobuf::DecodeTooDeep>&) {
    return false;
  }
}

// `nest` puts so many messages into one another. The deepest that the parser takes are `deepest`.
template <class Top>
void expectParsersLimit(int deepest, const std::function<void(Top&, int)>& nest) {
  for (int levels = 0; levels < 110; ++levels) {
    Top message;
    nest(message, levels);
    EXPECT_EQ(Top().ParseFromString(deterministic(message)), levels <= deepest) << levels;
    EXPECT_EQ(comesBack(message), levels <= deepest) << levels;
  }
}

// Goes down from `inner` with `step`, so many times.
template <class Inner>
Inner* down(Inner* inner, int levels, const std::function<Inner*(Inner&)>& step) {
  for (int i = 0; i < levels; ++i)
    inner = step(*inner);
  return inner;
}

TEST(Nesting, RepeatedMessagesCountAsOneLevel) {
  expectParsersLimit<Tree>(
      100, [](Tree& top, int levels) { down<Tree>(&top, levels, [](Tree& tree) { return tree.add_children(); }); });
}

TEST(Nesting, ExtensionsCountAsOneLevel) {
  expectParsersLimit<Extendable>(100, [](Extendable& top, int levels) {
    down<Extendable>(&top, levels, [](Extendable& outer) { return outer.MutableExtension(message_extension); });
  });
}

TEST(Nesting, GroupsCountAsOneLevel) {
  expectParsersLimit<Groups>(50, [](Groups& top, int levels) {
    down<Groups>(&top, levels, [](Groups& outer) { return outer.mutable_single()->mutable_inner(); });
  });
}

TEST(Nesting, ValuesOfMapsCountAsTwoLevels) {
  expectParsersLimit<Tree>(50, [](Tree& top, int levels) {
    down<Tree>(&top, levels, [](Tree& tree) { return &(*tree.mutable_named())["a"]; });
  });
  expectParsersLimit<Maps>(50, [](Maps& top, int levels) {
    down<Maps>(&top, levels, [](Maps& maps) { return &(*maps.mutable_to_maps())[1]; });
  });
}

using google::protobuf::Value;

TEST(Nesting, JsonListsCountAsTwoLevels) {
  expectParsersLimit<WellKnown>(49, [](WellKnown& top, int levels) {
    down<Value>(top.mutable_value(), levels, [](Value& value) {
      return value.mutable_list_value()->add_values();
    })->set_bool_value(true);
  });
}

TEST(Nesting, JsonObjectsCountAsThreeLevels) {
  expectParsersLimit<WellKnown>(33, [](WellKnown& top, int levels) {
    down<Value>(top.mutable_value(), levels, [](Value& value) {
      return &(*value.mutable_struct_value()->mutable_fields())["a"];
    })->set_null_value(google::protobuf::NULL_VALUE);
  });
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
