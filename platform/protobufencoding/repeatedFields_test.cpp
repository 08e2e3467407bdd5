// Repeated fields: typed columns, lists, struct arrays.
#include <gtest/gtest.h>

#include <limits>
#include <numeric>

#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/golden.h"
#include "platform/protobufencoding/testing/testTypes.h"

namespace parallel::protobufencoding::testing {
namespace {

StructOf empty() {
  return emptyRepeateds("Repeateds");
}

TEST(RepeatedFields, EmptyOnesKeepTheirClass) {
  expectGolden(empty(), "");
  expectGolden(emptyRepeateds("Unpackeds"), "");
}

TEST(RepeatedFields, EachKindIsAColumnOfItsClass) {
  expectGolden(empty().with("a_double", columnOf<double>({1.5, -0.0})),
               "0a 10 00 00 00 00 00 00 f8 3f 00 00 00 00 00 00 00 80");
  expectGolden(empty().with("a_float", columnOf<float>({1.5F})), "12 04 00 00 c0 3f");
  expectGolden(empty().with("a_int32", columnOf<std::int32_t>({1, 150})), "1a 03 01 96 01");
  expectGolden(empty().with("a_int64", columnOf<std::int64_t>({1, -1})), "22 0b 01 ff ff ff ff ff ff ff ff ff 01");
  expectGolden(empty().with("a_uint32", columnOf<std::uint32_t>({1, 2})), "2a 02 01 02");
  expectGolden(empty().with("a_uint64", columnOf<std::uint64_t>({1, 2})), "32 02 01 02");
  expectGolden(empty().with("a_sint32", columnOf<std::int32_t>({-1, 1})), "3a 02 01 02");
  expectGolden(empty().with("a_sint64", columnOf<std::int64_t>({-1, 1})), "42 02 01 02");
  expectGolden(empty().with("a_fixed32", columnOf<std::uint32_t>({1})), "4a 04 01 00 00 00");
  expectGolden(empty().with("a_fixed64", columnOf<std::uint64_t>({1})), "52 08 01 00 00 00 00 00 00 00");
  expectGolden(empty().with("a_sfixed32", columnOf<std::int32_t>({-1})), "5a 04 ff ff ff ff");
  expectGolden(empty().with("a_sfixed64", columnOf<std::int64_t>({-1})), "62 08 ff ff ff ff ff ff ff ff");
  expectGolden(empty().with("a_bool", columnOf<bool>({true, false})), "6a 02 01 00");
  expectGolden(empty().with("a_string", list(text("a"), text(""))), "72 01 61 72 00");
  expectGolden(empty().with("a_bytes", list(bytes("\xff"), bytes(""))), "7a 01 ff 7a 00");
  expectGolden(empty().with("a_colour", list(text("RED"), scalar<std::int32_t>(77))), "82 01 02 01 4d");
}

TEST(RepeatedFields, UnpackedFieldsAreWrittenOneByOne) {
  expectGolden(emptyRepeateds("Unpackeds").with("a_int32", columnOf<std::int32_t>({1, 2})), "18 01 18 02");
  expectGolden(emptyRepeateds("Unpackeds").with("a_float", columnOf<float>({1.5F, 0})),
               "15 00 00 c0 3f 15 00 00 00 00");
}

TEST(RepeatedFields, MessagesWithTheSameFieldsAreOneStructArray) {
  expectGolden(empty().with("a_point", structColumn(point(1, 0), point(0, 2))), "8a 01 02 08 01 8a 01 02 10 02");
  expectGolden(empty().with("a_point", structColumn(point(1, 0))), "8a 01 02 08 01");
}

TEST(RepeatedFields, MessagesWithDifferentFieldsAreAList) {
  const auto choices = [](qxArrayPtr value) {
    return StructOf(
        structOf("Everything").with("choices", std::move(value)).with("points", emptyStructColumn({"MessageType"})));
  };
  expectGolden(choices(list(structOf("Choice").with("left", scalar<std::int32_t>(1)),
                            structOf("Choice").with("right", scalar<std::int32_t>(2)))),
               "4a 03 98 01 01 4a 03 a0 01 02");
  expectGolden(choices(structColumn(structOf("Choice").with("left", scalar<std::int32_t>(1)),
                                    structOf("Choice").with("left", scalar<std::int32_t>(2)))),
               "4a 03 98 01 01 4a 03 98 01 02");
}

TEST(RepeatedFields, ElementsOfAStructArrayMayLeaveFieldsUnset) {
  auto points = structColumn(point(1, 2), point(3, 4));
  qxSetField(points.get(), 1, "x", nullptr);
  qxSetField(points.get(), 1, "MessageType", nullptr);
  expectEncodes(structOf("Repeateds").with("a_point", std::move(points)).get(), "8a 01 04 08 01 10 02 8a 01 02 10 04");
}

TEST(RepeatedFields, RowsAndListsOfStructsAreAcceptedToo) {
  expectEncodes(structOf("Repeateds").with("a_int32", matrix<std::int32_t>(1, 2, {1, 2})).get(), "1a 02 01 02");
  expectEncodes(structOf("Repeateds").with("a_point", list(point(1, 0))).get(), "8a 01 02 08 01");
}

TEST(RepeatedFields, TheEmptyLiteralIsAnEmptyFieldOfAnyKind) {
  for (const char* name : {"a_double", "a_int32", "a_bool", "a_string", "a_bytes", "a_colour", "a_point"}) {
    SCOPED_TRACE(name);
    expectEncodes(structOf("Repeateds").with(name, matrix<double>(0, 0, {})).get(), "");
  }
}

TEST(RepeatedFields, NumbersOfOtherClassesAreConvertedOneByOne) {
  expectEncodes(structOf("Repeateds").with("a_int32", columnOf<double>({1, 150})).get(), "1a 03 01 96 01");
  expectEncodes(structOf("Repeateds").with("a_uint64", columnOf<std::uint8_t>({1, 2})).get(), "32 02 01 02");
  expectEncodes(structOf("Repeateds").with("a_colour", columnOf<double>({1, 77})).get(), "82 01 02 01 4d");
}

TEST(RepeatedFields, NumbersMayStandInAList) {
  const auto encodes = [](const char* field, qxArrayPtr values, const char* bytes) {
    expectEncodes(structOf("Repeateds").with(field, std::move(values)).get(), bytes);
  };
  encodes("a_int32", list(scalar<std::int64_t>(1), scalar<double>(150)), "1a 03 01 96 01");
  encodes("a_bool", list(scalar<bool>(true), scalar<bool>(false)), "6a 02 01 00");
  encodes("a_double", list(), "");
}

// Around the length at which a column is handed over as a whole.
TEST(RepeatedFields, LongColumnsOfEveryWidthAreExact) {
  for (const int count : {63, 64, 65, 1000, 100000}) {
    Repeateds packed;
    Unpackeds unpacked;
    for (int i = 0; i < count; ++i) {
      const double value = i == 7 ? std::numeric_limits<double>::quiet_NaN() : i * 0.37;
      for (auto* numbers : {packed.mutable_a_double(), unpacked.mutable_a_double()})
        numbers->Add(value);
      for (auto* numbers : {packed.mutable_a_float(), unpacked.mutable_a_float()})
        numbers->Add(static_cast<float>(value));
      for (auto* numbers : {packed.mutable_a_sfixed32(), unpacked.mutable_a_sfixed32()})
        numbers->Add(-i);
      for (auto* numbers : {packed.mutable_a_fixed64(), unpacked.mutable_a_fixed64()})
        numbers->Add(0xfedcba9876543210ULL - static_cast<std::uint64_t>(i));
      for (auto* numbers : {packed.mutable_a_sint64(), unpacked.mutable_a_sint64()})
        numbers->Add(-i);
    }
    const qxArrayPtr value = decode(packed, nullptr);
    EXPECT_EQ(qxGetNumberOfElements(qxGetField(value.get(), 0, "a_double")), static_cast<std::size_t>(count));
    EXPECT_TRUE(deterministic(*encode(value.get(), nullptr, 0)) == deterministic(packed)) << count;
    EXPECT_TRUE(deterministic(*encode(decode(unpacked, nullptr).get(), nullptr, 0)) == deterministic(unpacked))
        << count;
  }
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
