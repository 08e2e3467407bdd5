// Map fields: every class of key, every kind of value, and keys that cannot name a field.
#include <gtest/gtest.h>

#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/golden.h"
#include "platform/protobufencoding/testing/testTypes.h"

namespace parallel::protobufencoding::testing {
namespace {

template <class Key>
StructOf entry(Key key, std::int32_t value) {
  return StructOf().with("key", scalar<Key>(key)).with("value", scalar<std::int32_t>(value));
}

TEST(Maps, EmptyOnesAreStructsWithoutFieldsOrWithoutElements) {
  expectGolden(emptyMaps(), "");
}

TEST(Maps, TextKeysNameTheFieldsOfAStruct) {
  expectGolden(
      emptyMaps().with("by_string", StructOf().with("a", scalar<std::int32_t>(1)).with("b c", scalar<std::int32_t>(2))),
      "62 05 0a 01 61 10 01 62 07 0a 03 62 20 63 10 02");
}

TEST(Maps, KeysCalledLikeTheFieldsOfEntriesOrOfMessagesAreOnlyKeys) {
  expectGolden(emptyMaps().with("by_string",
                                StructOf().with("key", scalar<std::int32_t>(1)).with("value", scalar<std::int32_t>(2))),
               "62 07 0a 03 6b 65 79 10 01 62 09 0a 05 76 61 6c 75 65 10 02");
  expectGolden(emptyMaps().with("by_string", StructOf().with("MessageType", scalar<std::int32_t>(1))),
               "62 0f 0a 0b 4d 65 73 73 61 67 65 54 79 70 65 10 01");
}

TEST(Maps, EmptyTextKeyMakesAListOfEntries) {
  expectGolden(
      emptyMaps().with("by_string", list(StructOf().with("key", text("")).with("value", scalar<std::int32_t>(1)),
                                         StructOf().with("key", text("a")).with("value", scalar<std::int32_t>(2)))),
      "62 04 0a 00 10 01 62 05 0a 01 61 10 02");
}

TEST(Maps, OtherKeysKeepTheirClassInAStructArray) {
  expectGolden(emptyMaps().with("by_int32", structColumn(entry<std::int32_t>(-1, 1), entry<std::int32_t>(5, 2))),
               "0a 0d 08 ff ff ff ff ff ff ff ff ff 01 10 01 0a 04 08 05 10 02");
  expectGolden(emptyMaps().with("by_int64", structColumn(entry<std::int64_t>(1, 1))), "12 04 08 01 10 01");
  expectGolden(emptyMaps().with("by_uint32", structColumn(entry<std::uint32_t>(1, 1))), "1a 04 08 01 10 01");
  expectGolden(emptyMaps().with("by_uint64", structColumn(entry<std::uint64_t>(1, 1))), "22 04 08 01 10 01");
  expectGolden(emptyMaps().with("by_sint32", structColumn(entry<std::int32_t>(-1, 1))), "2a 04 08 01 10 01");
  expectGolden(emptyMaps().with("by_sint64", structColumn(entry<std::int64_t>(-1, 1))), "32 04 08 01 10 01");
  expectGolden(emptyMaps().with("by_fixed32", structColumn(entry<std::uint32_t>(1, 1))), "3a 07 0d 01 00 00 00 10 01");
  expectGolden(emptyMaps().with("by_fixed64", structColumn(entry<std::uint64_t>(1, 1))),
               "42 0b 09 01 00 00 00 00 00 00 00 10 01");
  expectGolden(emptyMaps().with("by_sfixed32", structColumn(entry<std::int32_t>(1, 1))), "4a 07 0d 01 00 00 00 10 01");
  expectGolden(emptyMaps().with("by_sfixed64", structColumn(entry<std::int64_t>(1, 1))),
               "52 0b 09 01 00 00 00 00 00 00 00 10 01");
  expectGolden(emptyMaps().with("by_bool", structColumn(entry<bool>(false, 1), entry<bool>(true, 2))),
               "5a 04 08 00 10 01 5a 04 08 01 10 02");
}

TEST(Maps, DefaultsOfKeyAndValueAreKept) {
  expectGolden(emptyMaps().with("by_int32", structColumn(entry<std::int32_t>(0, 0))), "0a 04 08 00 10 00");
}

TEST(Maps, ValuesAreAsInSingleFields) {
  const auto one = [](qxArrayPtr value) { return StructOf().with("k", std::move(value)); };
  expectGolden(emptyMaps().with("to_double", one(scalar(1.5))), "6a 0c 0a 01 6b 11 00 00 00 00 00 00 f8 3f");
  expectGolden(emptyMaps().with("to_bool", one(boolean(true))), "ca 01 05 0a 01 6b 10 01");
  expectGolden(emptyMaps().with("to_string", one(text("v"))), "d2 01 06 0a 01 6b 12 01 76");
  expectGolden(emptyMaps().with("to_bytes", one(bytes("\xff"))), "da 01 06 0a 01 6b 12 01 ff");
  expectGolden(emptyMaps().with("to_colour", one(text("RED"))), "e2 01 05 0a 01 6b 10 01");
  expectGolden(emptyMaps().with("to_colour", one(scalar<std::int32_t>(77))), "e2 01 05 0a 01 6b 10 4d");
  expectGolden(emptyMaps().with("to_point", one(point(3, 0))), "ea 01 07 0a 01 6b 12 02 08 03");
  expectGolden(emptyMaps().with("to_value", one(text("v"))), "fa 01 08 0a 01 6b 12 03 1a 01 76");
}

TEST(Maps, MapsNestInMaps) {
  auto inner = StructOf(emptyMaps().with("by_bool", structColumn(entry<bool>(true, 1))));
  auto outer = StructOf().with("key", scalar<std::int32_t>(7)).with("value", std::move(inner));
  expectGolden(emptyMaps().with("to_maps", structColumn(std::move(outer))), "f2 01 0a 08 07 12 06 5a 04 08 01 10 01");
}

TEST(Maps, DecodeIsInTheOrderOfTheKeys) {
  Maps message;
  for (const std::int64_t key : {5, -3, 100, 0})
    (*message.mutable_by_int64())[key] = 1;
  const qxArrayPtr value = decode(message, nullptr);
  const qxArray* map = qxGetField(value.get(), 0, "by_int64");
  std::vector<std::int64_t> keys;
  for (std::size_t i = 0; i < qxGetNumberOfElements(map); ++i)
    keys.push_back(qxGetElements<std::int64_t>(qxGetField(map, i, "key"))[0]);
  EXPECT_EQ(keys, (std::vector<std::int64_t>{-3, 0, 5, 100}));
}

TEST(Maps, EncodeAcceptsListsOfEntriesTheEmptyLiteralAndUnsetValues) {
  expectEncodes(structOf("Maps").with("by_int32", list(entry<std::int32_t>(5, 2))).get(), "0a 04 08 05 10 02");
  expectEncodes(structOf("Maps").with("by_int32", matrix<double>(0, 0, {})).get(), "");
  expectEncodes(structOf("Maps").with("by_string", matrix<double>(0, 0, {})).get(), "");
  expectEncodes(structOf("Maps").with("by_string", StructOf().with("a", nullptr)).get(), "");
  expectEncodes(structOf("Maps").with("by_int32", structColumn(entry<double>(5, 2))).get(), "0a 04 08 05 10 02");
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
