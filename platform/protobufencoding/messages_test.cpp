// Messages as a whole: nesting, oneof, unknown fields, the entry points.
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "platform/protobufencoding/testing/RandomMessages.h"
#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/golden.h"
#include "platform/protobufencoding/testing/testTypes.h"

namespace parallel::protobufencoding::testing {
namespace {

StructOf tree(std::int32_t value) {
  return structOf("Tree")
      .with("value", scalar<std::int32_t>(value))
      .with("children", emptyStructColumn({"MessageType"}))
      .with("named", StructOf());
}

TEST(Messages, NestInEveryWay) {
  expectGolden(tree(1).with("child", tree(2).with("children", structColumn(tree(3)))), "08 01 12 06 08 02 1a 02 08 03");
  expectGolden(tree(0).with("named", StructOf().with("a", tree(4))), "22 07 0a 01 61 12 02 08 04");
}

TEST(Messages, MessageTypeOfANestedStructMayBeLeftOut) {
  expectEncodes(structOf("Tree").with("child", StructOf().with("value", scalar<std::int32_t>(2))).get(), "12 02 08 02");
}

TEST(Messages, SetMemberOfAOneofIsThereEvenWithItsDefault) {
  expectGolden(structOf("Choice"), "");
  expectGolden(structOf("Choice").with("a_int32", scalar<std::int32_t>(0)), "18 00");
  expectGolden(structOf("Choice").with("a_string", text("")), "72 00");
  expectGolden(structOf("Choice").with("a_point", point(0, 0)), "8a 01 00");
  expectGolden(structOf("Choice").with("a_colour", text("RED")).with("right", scalar<std::int32_t>(0)),
               "80 01 01 a0 01 00");
}

TEST(Messages, UnknownFieldsAreKeptAndWrittenBack) {
  // A varint, a fixed64, bytes, a group and a fixed32, in numbers that Point does not have.
  const std::string unknown =
      "f8 06 05 f9 06 01 02 03 04 05 06 07 08 fa 06 02 61 62 fb 06 08 01 fc 06 fd 06 01 02 03 04";
  expectGolden(point(1, 0).with("UnknownFields", bytes(fromHex(unknown))), "08 01 " + unknown);
}

TEST(Messages, UnknownFieldsOfNestedMessagesStayWithThem) {
  auto both = structColumn(point(1, 0).with("UnknownFields", bytes(fromHex("78 01"))),
                           point(2, 0).with("UnknownFields", bytes(fromHex("78 02"))));
  expectGolden(emptyRepeateds("Repeateds").with("a_point", std::move(both)),
               "8a 01 04 08 01 78 01 8a 01 04 08 02 78 02");
  auto one = list(point(1, 0), point(2, 0).with("UnknownFields", bytes(fromHex("78 02"))));
  expectGolden(emptyRepeateds("Repeateds").with("a_point", std::move(one)), "8a 01 02 08 01 8a 01 04 08 02 78 02");
}

TEST(Messages, EmptyUnknownFieldsAreAccepted) {
  expectEncodes(point(1, 0).with("UnknownFields", bytes("")).get(), "08 01");
}

TEST(Messages, OptionsOtherThanZeroAreRefused) {
  EXPECT_THROW(encode(point(1, 2).get(), nullptr, 1), std::invalid_argument);
}

TEST(Messages, TypeUrlHoldsTheFullName) {
  EXPECT_EQ(getTypeUrl(Point()), "type.googleapis.com/parallel.protobufencoding.testing.Point");
}

TEST(Messages, GenerateMessageTakesWhatFollowsTheLastSlash) {
  for (const char* prefix : {"type.googleapis.com/", "/", "a/b/c/"}) {
    const auto message = generateMessage(prefix + typeName("Point"));
    ASSERT_NE(message, nullptr) << prefix;
    EXPECT_EQ(message->GetDescriptor(), Point::descriptor());
  }
  EXPECT_EQ(generateMessage(typeName("Point")), nullptr);
  EXPECT_EQ(generateMessage("type.googleapis.com/no.Such"), nullptr);
  EXPECT_EQ(generateMessage("type.googleapis.com/"), nullptr);
  EXPECT_EQ(generateMessage(""), nullptr);
}

TEST(Messages, GenerateMessageByNameTakesMessagesOnly) {
  EXPECT_NE(generateMessageByName(typeName("Point")), nullptr);
  EXPECT_EQ(generateMessageByName(typeName("Colour")), nullptr);
  EXPECT_EQ(generateMessageByName(""), nullptr);
}

// Two classes of one type, of which each has a reflection of its own, down to the innermost message.
TEST(Messages, DynamicOnesOfCompiledTypesDecodeToTheSame) {
  google::protobuf::DynamicMessageFactory factory;
  for (std::uint64_t seed = 0; seed < 20; ++seed) {
    Everything compiled;
    RandomMessages(seed).fill(compiled, 4);
    const std::unique_ptr<google::protobuf::Message> dynamic(factory.GetPrototype(Everything::descriptor())->New());
    ASSERT_TRUE(dynamic->ParseFromString(deterministic(compiled)));
    expectDecodes(*dynamic, decode(compiled, nullptr).get());
  }
}

// A pool that ends, so that a later descriptor may lie where one of it lay.
TEST(Messages, TypesOfAPoolThatEndsAreNotMistakenForLaterOnes) {
  for (const char* field : {"first", "second", "third"}) {
    google::protobuf::FileDescriptorProto file;
    file.set_name("short_lived.proto");
    file.set_syntax("proto3");
    auto* type = file.add_message_type();
    type->set_name("ShortLived");
    auto* number = type->add_field();
    number->set_name(field);
    number->set_number(1);
    number->set_type(google::protobuf::FieldDescriptorProto::TYPE_INT32);
    number->set_label(google::protobuf::FieldDescriptorProto::LABEL_OPTIONAL);
    google::protobuf::DescriptorPool pool;
    google::protobuf::DynamicMessageFactory factory(&pool);
    const auto* descriptor = pool.BuildFile(file)->FindMessageTypeByName("ShortLived");
    const std::unique_ptr<google::protobuf::Message> message(factory.GetPrototype(descriptor)->New());
    expectDecodes(*message, StructOf("ShortLived").with(field, scalar<std::int32_t>(0)).get());
  }
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
