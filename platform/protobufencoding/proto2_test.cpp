// What only proto2 has: groups, extensions, required fields, defaults, closed enums, text that is not UTF-8.
#include <gtest/gtest.h>

#include "platform/protobufencoding/testing/everything2.pb.h"
#include "platform/protobufencoding/testing/golden.h"
#include "platform/protobufencoding/testing/testTypes.h"

namespace parallel::protobufencoding::testing {
namespace {

StructOf extendable() {
  return structOf("Extendable");
}

std::string extension(std::string_view name) {
  return "[" + typeName(name) + "]";
}

TEST(Proto2, UnsetFieldsAreAbsentAndDefaultsAreNotFilledIn) {
  expectGolden(structOf("Optionals2"), "");
  expectGolden(structOf("Optionals2").with("with_default", scalar<std::int32_t>(42)), "88 01 2a");
  expectGolden(structOf("Optionals2").with("a_int32", scalar<std::int32_t>(0)), "18 00");
}

TEST(Proto2, TextThatIsNotUtf8IsBytes) {
  expectGolden(structOf("Optionals2").with("a_string", bytes("\xff")), "72 01 ff");
  expectGolden(structOf("Optionals2").with("a_string", text("\xc3\xa4")), "72 02 c3 a4");
  expectGolden(emptyRepeateds("Repeateds2")
                   .with("packed", columnOf<std::int32_t>({}))
                   .with("packed_double", columnOf<double>({}))
                   .with("to_closed", StructOf())
                   .with("to_bytes", StructOf())
                   .with("a_string", list(text("a"), bytes("\xff"))),
               "72 01 61 72 01 ff");
}

TEST(Proto2, MapKeyThatIsNotUtf8MakesAListOfEntries) {
  expectGolden(emptyRepeateds("Repeateds2")
                   .with("packed", columnOf<std::int32_t>({}))
                   .with("packed_double", columnOf<double>({}))
                   .with("to_closed", StructOf())
                   .with("to_bytes", list(StructOf().with("key", bytes("\xff")).with("value", bytes("v")))),
               "a2 01 06 0a 01 ff 12 01 76");
}

TEST(Proto2, NumberThatAClosedEnumDoesNotNameIsAnUnknownField) {
  expectGolden(structOf("Optionals2").with("a_closed", text("SECOND")), "80 01 02");
  expectGolden(structOf("Optionals2").with("UnknownFields", bytes(fromHex("80 01 07"))), "80 01 07");
}

TEST(Proto2, GroupsAreMessagesUnderTheirLowerCaseName) {
  const auto single = [](StructOf value) { return structOf("Groups").with("single", std::move(value)); };
  expectGolden(single(structOf("Groups.Single").with("number", scalar<std::int32_t>(5)))
                   .with("many", emptyStructColumn({"MessageType"})),
               "0b 10 05 0c");
  expectGolden(
      structOf("Groups").with("many", structColumn(structOf("Groups.Many").with("number", scalar<std::int32_t>(1)),
                                                   structOf("Groups.Many").with("number", scalar<std::int32_t>(2)))),
      "23 28 01 24 23 28 02 24");
}

TEST(Proto2, ExtensionsGoByTheirFullNameInBrackets) {
  expectGolden(extendable(), "");
  expectGolden(
      extendable().with("own", scalar<std::int32_t>(1)).with(extension("number_extension"), scalar<std::int32_t>(2)),
      "08 01 a0 06 02");
  expectGolden(extendable().with(extension("text_extension"), text("a")), "aa 06 01 61");
  expectGolden(extendable().with(extension("doubles_extension"), columnOf<double>({1.5})),
               "b2 06 08 00 00 00 00 00 00 f8 3f");
  expectGolden(extendable().with(extension("texts_extension"), list(text("a"), text("b"))), "ba 06 01 61 ba 06 01 62");
  expectGolden(extendable().with(extension("message_extension"), extendable().with("own", scalar<std::int32_t>(3))),
               "c2 06 02 08 03");
  expectGolden(extendable().with(extension("closed_extension"), text("FIRST")), "d0 06 01");
  expectGolden(extendable().with(extension("groupextension"),
                                 structOf("GroupExtension").with("number", scalar<std::int32_t>(4))),
               "db 06 08 04 dc 06");
  expectGolden(extendable().with(extension("Extendable.nested_extension"), scalar<std::int32_t>(5)), "f0 06 05");
}

TEST(Proto2, RepeatedMessagesWithDifferentExtensionsAreAList) {
  expectGolden(structOf("Everything2")
                   .with("extendables", list(extendable().with(extension("number_extension"), scalar<std::int32_t>(2)),
                                             extendable().with(extension("text_extension"), text("a")))),
               "3a 03 a0 06 02 3a 04 aa 06 01 61");
}

TEST(Proto2, LongRepeatedExtensionIsExact) {
  Extendable message;
  for (int i = 0; i < 1000; ++i)
    message.AddExtension(doubles_extension, i * 0.5);
  EXPECT_EQ(deterministic(*encode(decode(message, nullptr).get(), nullptr, 0)), deterministic(message));
}

TEST(Proto2, MessageSetsKeepKnownAndUnknownItems) {
  Set known;
  known.MutableExtension(SetItem::item)->set_number(5);
  const std::string bytes = deterministic(known);
  EXPECT_EQ(toHex(bytes), "0b 10 e8 07 1a 02 08 05 0c");
  expectGolden(
      structOf("Set").with(extension("SetItem.item"), structOf("SetItem").with("number", scalar<std::int32_t>(5))),
      toHex(bytes));
  Set unknown;
  ASSERT_TRUE(unknown.ParseFromString(fromHex("0b 10 e9 07 1a 02 08 05 0c")));
  EXPECT_EQ(toHex(deterministic(*encode(decode(unknown, nullptr).get(), nullptr, 0))), "0b 10 e9 07 1a 02 08 05 0c");
}

TEST(Proto2, RequiredFieldIsNeededToEncodeOnly) {
  expectGolden(structOf("Demanding").with("needed", scalar<std::int32_t>(0)), "08 00");
  Demanding partial;
  partial.set_extra("e");
  expectDecodes(partial, structOf("Demanding").with("extra", text("e")).get());
}

TEST(Proto2, FieldsCalledLikeTheStructsOwnGetAnUnderscore) {
  expectGolden(structOf("Clashing")
                   .with("MessageType_", text("a"))
                   .with("MessageType__", scalar<std::int32_t>(1))
                   .with("UnknownFields_", bytes("b"))
                   .with("TypeUrl_", text("c"))
                   .with("key", scalar<std::int32_t>(2))
                   .with("value", scalar<std::int32_t>(3)),
               "0a 01 61 10 01 1a 01 62 22 01 63 28 02 30 03");
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
