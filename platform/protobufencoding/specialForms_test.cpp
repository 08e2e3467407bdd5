// Messages whose value is not a struct with their fields, and the general form behind each.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/golden.h"
#include "platform/protobufencoding/testing/testTypes.h"

namespace parallel::protobufencoding::testing {
namespace {

StructOf with(std::string_view field, qxArrayPtr value) {
  return emptyWellKnown().with(field, std::move(value));
}
StructOf only(std::string_view field, qxArrayPtr value) {
  return structOf("WellKnown").with(field, std::move(value));
}
StructOf time(std::string_view type, std::int64_t seconds, std::int32_t nanos) {
  return StructOf("google.protobuf." + std::string(type))
      .with("seconds", scalar<std::int64_t>(seconds))
      .with("nanos", scalar<std::int32_t>(nanos));
}
qxArrayPtr null() {
  return matrix<double>(0, 0, {});
}

TEST(SpecialForms, TimestampIsTextWithNanoseconds) {
  expectGolden(with("timestamp", text("1970-01-01T00:00:00Z")), "12 00");
  expectGolden(with("timestamp", text("1970-01-01T00:00:01.000000001Z")), "12 04 08 01 10 01");
  expectGolden(with("timestamp", text("1969-12-31T23:59:59.500Z")),
               "12 11 08 ff ff ff ff ff ff ff ff ff 01 10 80 ca b5 ee 01");
}

TEST(SpecialForms, TimestampOutsideTheCalendarIsAStruct) {
  expectGolden(with("timestamp", time("Timestamp", 253402300800, 0)), "12 07 08 80 83 d1 ff af 07");
  expectGolden(with("timestamp", time("Timestamp", 0, -1)), "12 0b 10 ff ff ff ff ff ff ff ff ff 01");
}

TEST(SpecialForms, DurationIsTextInSeconds) {
  expectGolden(with("duration", text("0s")), "1a 00");
  expectGolden(with("duration", text("1.500s")), "1a 08 08 01 10 80 ca b5 ee 01");
  expectGolden(with("duration", text("-0.000000001s")), "1a 0b 10 ff ff ff ff ff ff ff ff ff 01");
}

TEST(SpecialForms, DurationOfMixedSignsIsAStruct) {
  expectGolden(with("duration", time("Duration", 1, -1)), "1a 0d 08 01 10 ff ff ff ff ff ff ff ff ff 01");
}

TEST(SpecialForms, GeneralFormIsAcceptedWhereTheSpecialOneWouldDo) {
  expectEncodes(only("duration", time("Duration", 1, 0)).get(), "1a 02 08 01");
  expectEncodes(only("duration", StructOf().with("seconds", scalar(1.0))).get(), "1a 02 08 01");
  expectEncodes(only("int32_value", StructOf().with("value", scalar<std::int32_t>(5))).get(), "6a 02 08 05");
  expectEncodes(only("field_mask", StructOf().with("paths", list(text("a")))).get(), "2a 03 0a 01 61");
  expectEncodes(only("list", StructOf("google.protobuf.ListValue").with("values", list(text("a")))).get(),
                "42 05 0a 03 1a 01 61");
}

TEST(SpecialForms, UnknownFieldsMakeTheGeneralForm) {
  expectGolden(with("duration", time("Duration", 1, 0).with("UnknownFields", bytes(fromHex("78 01")))),
               "1a 04 08 01 78 01");
  expectGolden(with("bool_value", StructOf("google.protobuf.BoolValue")
                                      .with("value", boolean(true))
                                      .with("UnknownFields", bytes(fromHex("78 01")))),
               "7a 04 08 01 78 01");
}

TEST(SpecialForms, WrappersAreTheirValue) {
  expectGolden(with("double_value", scalar(1.5)), "4a 09 09 00 00 00 00 00 00 f8 3f");
  expectGolden(with("float_value", scalar(1.5F)), "52 05 0d 00 00 c0 3f");
  expectGolden(with("int64_value", scalar<std::int64_t>(5)), "5a 02 08 05");
  expectGolden(with("uint64_value", scalar<std::uint64_t>(5)), "62 02 08 05");
  expectGolden(with("int32_value", scalar<std::int32_t>(0)), "6a 00");
  expectGolden(with("uint32_value", scalar<std::uint32_t>(5)), "72 02 08 05");
  expectGolden(with("bool_value", boolean(true)), "7a 02 08 01");
  expectGolden(with("string_value", text("a")), "82 01 03 0a 01 61");
  expectGolden(with("bytes_value", bytes("\xff")), "8a 01 03 0a 01 ff");
}

TEST(SpecialForms, RepeatedWrappersAreAList) {
  expectGolden(with("many_int32_value", list(scalar<std::int32_t>(5), scalar<std::int32_t>(0))),
               "8a 02 02 08 05 8a 02 00");
}

TEST(SpecialForms, FieldMaskIsItsPathsWithCommas) {
  expectGolden(with("field_mask", text("")), "2a 00");
  expectGolden(with("field_mask", text("a_b,c.d")), "2a 0a 0a 03 61 5f 62 0a 03 63 2e 64");
}

TEST(SpecialForms, FieldMaskWithACommaOrAnEmptyPathIsAStruct) {
  const auto mask = [](qxArrayPtr paths) {
    return StructOf("google.protobuf.FieldMask").with("paths", std::move(paths));
  };
  expectGolden(with("field_mask", mask(list(text("a,b")))), "2a 05 0a 03 61 2c 62");
  expectGolden(with("field_mask", mask(list(text("")))), "2a 02 0a 00");
}

TEST(SpecialForms, EmptyIsAStructWithItsTypeOnly) {
  expectGolden(with("empty", StructOf("google.protobuf.Empty")), "22 00");
}

TEST(SpecialForms, JsonValuesAreNative) {
  expectGolden(with("value", null()), "3a 02 08 00");
  expectGolden(with("value", scalar(1.5)), "3a 09 11 00 00 00 00 00 00 f8 3f");
  expectGolden(with("value", text("")), "3a 02 1a 00");
  expectGolden(with("value", boolean(false)), "3a 02 20 00");
  expectGolden(with("value", StructOf()), "3a 02 2a 00");
  expectGolden(with("value", StructOf().with("a", null())), "3a 0b 2a 09 0a 07 0a 01 61 12 02 08 00");
  expectGolden(with("value", list()), "3a 02 32 00");
  expectGolden(with("value", list(boolean(true), list(null()))), "3a 0e 32 0c 0a 02 20 01 0a 06 32 04 0a 02 08 00");
}

TEST(SpecialForms, JsonObjectsAndListsAreNative) {
  expectGolden(with("struct", StructOf()), "32 00");
  expectGolden(with("struct", StructOf().with("a", text("b")).with("c", boolean(true))),
               "32 13 0a 08 0a 01 61 12 03 1a 01 62 0a 07 0a 01 63 12 02 20 01");
  expectGolden(with("list", list(null(), text("a"))), "42 09 0a 02 08 00 0a 03 1a 01 61");
}

TEST(SpecialForms, JsonNumbersAreTakenFromAnyClassWhenExact) {
  expectEncodes(only("value", scalar<std::int32_t>(2)).get(), "3a 09 11 00 00 00 00 00 00 00 40");
}

TEST(SpecialForms, NanInAJsonValueIsKept) {
  WellKnown message;
  message.mutable_value()->set_number_value(std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(deterministic(*encode(decode(message, nullptr).get(), nullptr, 0)), deterministic(message));
}

TEST(SpecialForms, JsonValueWithoutAKindIsAStruct) {
  expectGolden(with("value", StructOf("google.protobuf.Value")), "3a 00");
}

TEST(SpecialForms, JsonNullOfAnotherNumberIsAStruct) {
  expectGolden(with("value", StructOf("google.protobuf.Value").with("null_value", scalar<std::int32_t>(5))),
               "3a 02 08 05");
}

TEST(SpecialForms, JsonObjectWhoseKeyLooksLikeATypeIsAStructOfItsFields) {
  const auto general = [] {
    return StructOf("google.protobuf.Struct").with("fields", StructOf().with("MessageType", text("a")));
  };
  const std::string fields = "0a 12 0a 0b 4d 65 73 73 61 67 65 54 79 70 65 12 03 1a 01 61";
  expectGolden(with("struct", general()), "32 14 " + fields);
  expectGolden(with("value", general()), "3a 16 2a 14 " + fields);
}

TEST(SpecialForms, JsonObjectWithAnEmptyKeyIsAStructOfItsFields) {
  expectGolden(with("struct", StructOf("google.protobuf.Struct")
                                  .with("fields", list(StructOf().with("key", text("")).with("value", null())))),
               "32 08 0a 06 0a 00 12 02 08 00");
}

TEST(SpecialForms, JsonListWithUnknownFieldsInAValueIsAStruct) {
  expectGolden(
      with("value",
           StructOf("google.protobuf.ListValue").with("values", list()).with("UnknownFields", bytes(fromHex("78 01")))),
      "3a 04 32 02 78 01");
}

TEST(SpecialForms, AtTheTopTheyHaveTheirGeneralForm) {
  expectGolden(time("Timestamp", 5, 0), "08 05");
  expectGolden(StructOf("google.protobuf.BoolValue").with("value", boolean(true)), "08 01");
  expectGolden(StructOf("google.protobuf.Struct").with("fields", StructOf().with("a", null())),
               "0a 07 0a 01 61 12 02 08 00");
  expectGolden(StructOf("google.protobuf.Value").with("bool_value", boolean(true)), "20 01");
  expectGolden(StructOf("google.protobuf.ListValue").with("values", list(null())), "0a 02 08 00");
  expectGolden(StructOf("google.protobuf.FieldMask").with("paths", list(text("a"))), "0a 01 61");
}

TEST(SpecialForms, NullValueFieldIsAnEnumLikeAnother) {
  expectGolden(with("null", scalar<std::int32_t>(3)), "c0 02 03");
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
