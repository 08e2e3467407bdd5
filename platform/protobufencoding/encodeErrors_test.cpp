// What encode refuses, and that it says where, what it found and what it wanted.
#include <gtest/gtest.h>

#include <limits>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/testing/SchedulerAnyEncoder.h"
#include "platform/protobufencoding/testing/everything2.pb.h"
#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/golden.h"
#include "platform/protobufencoding/testing/testTypes.h"

namespace parallel::protobufencoding::testing {
namespace {

using EncodeError = Exception<::parallel::protobuf::EncodeError>;

// The path is below the test schema's package.
void expectError(const qxArray* value, const std::string& path, const std::string& found, const std::string& wanted) {
  SchedulerAnyEncoder encoder;
  try {
    encode(value, &encoder, 0);
    ADD_FAILURE() << "no error at " << path;
  } catch (const EncodeError& error) {
    const std::string where = path.starts_with("the value") ? path : typeName(path);
    EXPECT_EQ(error.what(),
              "The value cannot become a message: " + where + ": found " + found + ", wanted " + wanted + ".");
    EXPECT_EQ(error.identifier(), "parallel:protobuf:EncodeError");
  }
}
void expectError(const StructOf& value, const std::string& path, const std::string& found, const std::string& wanted) {
  expectError(value.get(), path, found, wanted);
}

StructOf scalars(std::string_view field, qxArrayPtr value) {
  return structOf("Scalars").with(field, std::move(value));
}
StructOf repeateds(std::string_view field, qxArrayPtr value) {
  return structOf("Repeateds").with(field, std::move(value));
}

TEST(EncodeErrors, TopMustBeOneStructThatNamesAKnownMessage) {
  expectError(nullptr, "the value", "no value", "a struct 1-by-1");
  expectError(scalar(1.0).get(), "the value", "float64 1-by-1", "a struct 1-by-1");
  expectError(emptyStructColumn({"MessageType"}).get(), "the value", "struct 0-by-1", "a struct 1-by-1");
  expectError(structColumn(point(1, 2), point(1, 2)).get(), "the value", "struct 2-by-1", "a struct 1-by-1");
  expectError(StructOf(), "the value", "no field MessageType", "the full name of a message type in it");
  expectError(StructOf().with("MessageType", scalar(1.0)), "the value.MessageType", "float64 1-by-1", "a text row");
  expectError(StructOf("no.Such"), "the value.MessageType", "\"no.Such\"", "the full name of a known message type");
}

TEST(EncodeErrors, UnknownFieldNameIsNamedBesideTheKnownOnes) {
  expectError(structOf("Point").with("z", scalar(1.0)), "Point", "the field \"z\"",
              "fields of " + typeName("Point") + " (x, y)");
  expectError(structOf("Tree").with("child", structOf("Tree").with("z", scalar(1.0))), "Tree.child", "the field \"z\"",
              "fields of " + typeName("Tree") + " (value, child, children, named)");
  expectError(repeateds("a_point", structColumn(point(1, 2).with("z", scalar(1.0)))), "Repeateds.a_point",
              "the field \"z\"", "fields of " + typeName("Point") + " (x, y)");
  expectError(repeateds("a_point", emptyStructColumn({"MessageType", "z"})), "Repeateds.a_point", "the field \"z\"",
              "fields of " + typeName("Point") + " (x, y)");
  expectError(structOf("Extendable").with("[no.such]", scalar(1.0)), "Extendable", "the field \"[no.such]\"",
              "fields of " + typeName("Extendable") + " (own)");
  expectError(structOf("Point").with("[" + typeName("number_extension") + "]", scalar(1.0)), "Point",
              "the field \"[" + typeName("number_extension") + "]\"", "fields of " + typeName("Point") + " (x, y)");
}

TEST(EncodeErrors, TypeUrlIsForTheContentOfAnAnyOnly) {
  expectError(structOf("Point").with("TypeUrl", text("u")), "Point", "the field \"TypeUrl\"",
              "fields of " + typeName("Point") + " (x, y)");
}

TEST(EncodeErrors, WrongClassIsNamed) {
  expectError(scalars("a_int32", text("5")), "Scalars.a_int32", "text 1-by-1", "int32");
  expectError(scalars("a_double", boolean(true)), "Scalars.a_double", "boolean 1-by-1", "float64");
  expectError(scalars("a_int64", StructOf()), "Scalars.a_int64", "struct 1-by-1", "int64");
  expectError(scalars("a_bool", scalar(1.0)), "Scalars.a_bool", "float64 1-by-1", "boolean");
  expectError(scalars("a_string", scalar(1.0)), "Scalars.a_string", "float64 1-by-1", "a text row");
  expectError(scalars("a_bytes", text("a")), "Scalars.a_bytes", "text 1-by-1", "a uint8 column");
  expectError(scalars("a_colour", boolean(true)), "Scalars.a_colour", "boolean 1-by-1",
              "the name or number of an enum value");
  expectError(scalars("a_point", scalar(1.0)), "Scalars.a_point", "float64 1-by-1",
              "a struct 1-by-1 (" + typeName("Point") + ")");
}

TEST(EncodeErrors, ComplexNumbersAreRefused) {
  const std::size_t one[] = {1, 1};
  expectError(scalars("a_double", qxCreateNumericArray(one, qxClass::Float64, true)), "Scalars.a_double",
              "complex float64 1-by-1", "float64");
  expectError(repeateds("a_double", qxCreateNumericArray(one, qxClass::Float64, true)), "Repeateds.a_double",
              "complex float64 1-by-1", "float64");
  expectError(scalars("a_bytes", qxCreateNumericArray(one, qxClass::Uint8, true)), "Scalars.a_bytes",
              "complex uint8 1-by-1", "a uint8 column");
}

TEST(EncodeErrors, NumberThatTheFieldCannotHoldIsShown) {
  expectError(scalars("a_int32", scalar(1.5)), "Scalars.a_int32", "float64 1.5", "a value of int32");
  expectError(scalars("a_int32", scalar(2147483648.0)), "Scalars.a_int32", "float64 2147483648", "a value of int32");
  expectError(scalars("a_int32", scalar(std::numeric_limits<double>::quiet_NaN())), "Scalars.a_int32", "float64 nan",
              "a value of int32");
  expectError(scalars("a_uint32", scalar<std::int32_t>(-1)), "Scalars.a_uint32", "int32 -1", "a value of uint32");
  expectError(scalars("a_int64", scalar(9223372036854775808.0)), "Scalars.a_int64", "float64 9223372036854775808",
              "a value of int64");
  expectError(scalars("a_double", scalar<std::int64_t>(9007199254740993)), "Scalars.a_double", "int64 9007199254740993",
              "a value of float64");
  expectError(scalars("a_float", scalar(1e300)), "Scalars.a_float", "float64 1e+300", "a value of float32");
  expectError(repeateds("a_int32", columnOf<double>({1, 2, 0.5})), "Repeateds.a_int32[2]", "float64 0.5",
              "a value of int32");
}

TEST(EncodeErrors, WrongShapeIsNamed) {
  expectError(scalars("a_int32", columnOf<std::int32_t>({1, 2})), "Scalars.a_int32", "int32 2-by-1", "int32 1-by-1");
  expectError(scalars("a_int32", columnOf<std::int32_t>({})), "Scalars.a_int32", "int32 0-by-1", "int32 1-by-1");
  expectError(scalars("a_bytes", matrix<std::uint8_t>(2, 2, {})), "Scalars.a_bytes", "uint8 2-by-2", "a uint8 column");
  expectError(scalars("a_string", matrix<char16_t>(2, 2, {})), "Scalars.a_string", "text 2-by-2", "a text row");
  expectError(scalars("a_point", structColumn(point(1, 2), point(1, 2))), "Scalars.a_point", "struct 2-by-1",
              "a struct 1-by-1 (" + typeName("Point") + ")");
  expectError(repeateds("a_double", matrix<double>(2, 2, {})), "Repeateds.a_double", "float64 2-by-2",
              "a column of float64");
  expectError(repeateds("a_bool", matrix<bool>(2, 2, {})), "Repeateds.a_bool", "boolean 2-by-2", "a column of boolean");
}

TEST(EncodeErrors, RepeatedStringsAndMessagesAreListsOrStructs) {
  expectError(repeateds("a_string", text("a")), "Repeateds.a_string", "text 1-by-1", "a list of text rows");
  expectError(repeateds("a_bytes", bytes("a")), "Repeateds.a_bytes", "uint8 1-by-1", "a list of uint8 columns");
  expectError(repeateds("a_bool", scalar(1.0)), "Repeateds.a_bool", "float64 1-by-1", "a column of boolean");
  expectError(repeateds("a_colour", text("RED")), "Repeateds.a_colour", "text 1-by-3", "a list of enum names");
  expectError(repeateds("a_point", scalar(1.0)), "Repeateds.a_point", "float64 1-by-1",
              "a struct column or a list (" + typeName("Point") + ")");
  expectError(repeateds("a_string", list(text("a"), scalar(1.0))), "Repeateds.a_string[1]", "float64 1-by-1",
              "a text row");
  expectError(repeateds("a_string", list(nullptr)), "Repeateds.a_string[0]", "no value", "a text row");
  expectError(repeateds("a_point", list(point(1, 2), scalar(1.0))), "Repeateds.a_point[1]", "float64 1-by-1",
              "a struct 1-by-1 (" + typeName("Point") + ")");
  expectError(repeateds("a_point", list(nullptr)), "Repeateds.a_point[0]", "no value",
              "a struct 1-by-1 (" + typeName("Point") + ")");
}

TEST(EncodeErrors, PathGoesThroughEveryLevel) {
  auto children =
      structColumn(structOf("Tree").with("value", scalar(1.0)), structOf("Tree").with("value", scalar(0.5)));
  auto named = StructOf().with("k", structOf("Tree").with("children", std::move(children)));
  expectError(structOf("Tree").with("child", structOf("Tree").with("named", std::move(named))),
              "Tree.child.named.k.children[1].value", "float64 0.5", "a value of int32");
}

TEST(EncodeErrors, TextWithoutUtf8FormIsRefused) {
  expectError(scalars("a_string", matrix<char16_t>(1, 1, {0xd800})), "Scalars.a_string",
              "text with an unpaired surrogate", "well-formed UTF-16");
  expectError(scalars("a_string", bytes("\xff")), "Scalars.a_string", "bytes that are not UTF-8", "UTF-8");
}

TEST(EncodeErrors, UnknownEnumNameIsRefused) {
  expectError(scalars("a_colour", text("BLUE")), "Scalars.a_colour", "\"BLUE\"",
              "a name of the enum " + typeName("Colour"));
  expectError(scalars("a_colour", scalar(0.5)), "Scalars.a_colour", "float64 0.5", "a value of int32");
}

TEST(EncodeErrors, ClosedEnumRefusesOtherNumbers) {
  qxArrayPtr asList = list(text("FIRST"), scalar<std::int32_t>(9));
  qxArrayPtr asColumn = columnOf<std::int32_t>({1, 9});
  expectError(structOf("Optionals2").with("a_closed", scalar<std::int32_t>(7)), "Optionals2.a_closed", "the number 7",
              "a number that the closed enum " + typeName("Closed") + " names");
  for (qxArrayPtr* numbers : {&asList, &asColumn})
    expectError(structOf("Repeateds2").with("a_closed", std::move(*numbers)), "Repeateds2.a_closed[1]", "the number 9",
                "a number that the closed enum " + typeName("Closed") + " names");
}

TEST(EncodeErrors, TwoMembersOfAOneofAreNamed) {
  expectError(structOf("Choice").with("left", scalar(1.0)).with("right", scalar(2.0)), "Choice.right",
              "also the field \"left\"", "only one member of the oneof \"other\"");
  expectError(structOf("Choice").with("a_point", point(1, 2)).with("a_int32", scalar(2.0)), "Choice.a_int32",
              "also the field \"a_point\"", "only one member of the oneof \"choice\"");
}

TEST(EncodeErrors, WrongMessageTypeOfANestedStructIsNamed) {
  expectError(scalars("a_point", structOf("Tree")), "Scalars.a_point.MessageType", "\"" + typeName("Tree") + "\"",
              "\"" + typeName("Point") + "\"");
}

TEST(EncodeErrors, MissingRequiredFieldIsNamed) {
  const std::string wanted = "one, for the field is required";
  expectError(structOf("Demanding"), "Demanding.needed", "no value", wanted);
  expectError(structOf("Everything2").with("demanding", structOf("Demanding")), "Everything2.demanding.needed",
              "no value", wanted);
  expectError(structOf("Parcel").with("content", structOf("Demanding")), "Parcel.content.needed", "no value", wanted);
}

TEST(EncodeErrors, UnknownFieldsMustBeEncodedFields) {
  expectError(structOf("Point").with("UnknownFields", bytes("\x08")), "Point.UnknownFields",
              "bytes that are not encoded fields", "encoded fields");
  expectError(structOf("Point").with("UnknownFields", text("a")), "Point.UnknownFields", "text 1-by-1",
              "a uint8 column");
}

// The arrays have no pages, or no values at all: nothing is read of them.
TEST(EncodeErrors, MoreThanProtobufCountsIsRefused) {
  const std::string wanted = "at most 2147483647 elements";
  const std::size_t many[] = {std::size_t{1} << 31U, 1};
  expectError(structOf("Point").with("UnknownFields", qxCreateNumericArray(many, qxClass::Uint8)),
              "Point.UnknownFields", "uint8 2147483648-by-1", wanted);
  expectError(repeateds("a_bool", qxCreateNumericArray(many, qxClass::Boolean)), "Repeateds.a_bool",
              "boolean 2147483648-by-1", wanted);
  expectError(repeateds("a_int32", qxCreateNumericArray(many, qxClass::Int8)), "Repeateds.a_int32",
              "int8 2147483648-by-1", wanted);
  expectError(repeateds("a_point", qxCreateStructArray(many, {})), "Repeateds.a_point", "struct 2147483648-by-1",
              wanted);
  expectError(structOf("Maps").with("by_int32", qxCreateStructArray(many, {})), "Maps.by_int32",
              "struct 2147483648-by-1", wanted);
}

TEST(EncodeErrors, AnyNeedsAKnownMessageType) {
  expectError(structOf("Parcel").with("content", StructOf()), "Parcel.content", "no field MessageType",
              "the full name of a message type in it");
  expectError(structOf("Parcel").with("content", StructOf("no.Such")), "Parcel.content.MessageType", "\"no.Such\"",
              "the full name of a known message type");
  expectError(structOf("Parcel").with("content", point(1, 2).with("TypeUrl", scalar(1.0))), "Parcel.content.TypeUrl",
              "float64 1-by-1", "a text row");
  for (const char* url : {"", "Point", "type.googleapis.com/no.Such", "type.googleapis.com/google.protobuf.Empty"})
    expectError(structOf("Parcel").with("content", point(1, 2).with("TypeUrl", text(url))), "Parcel.content.TypeUrl",
                "\"" + std::string(url) + "\"", "a URL that stands for " + typeName("Point"));
  expectError(structOf("Parcel").with("more", list(point(1, 2), structOf("Point").with("x", scalar(0.5)))),
              "Parcel.more[1].x", "float64 0.5", "a value of int32");
}

TEST(EncodeErrors, MapsNeedKeysAndValuesOnceEach) {
  const auto entry = [](double key) { return StructOf().with("key", scalar(key)).with("value", scalar(1.0)); };
  expectError(structOf("Maps").with("by_int32", structColumn(entry(1), entry(1))), "Maps.by_int32",
              "the key \"1\" twice", "each key once");
  expectError(structOf("Maps").with("by_int32", structColumn(StructOf().with("key", scalar(1.0)))), "Maps.by_int32[0]",
              "no field \"value\"", "the fields key and value");
  expectError(structOf("Maps").with("by_int32", structColumn(StructOf().with("value", scalar(1.0)))),
              "Maps.by_int32[0]", "no field \"key\"", "the fields key and value");
  expectError(structOf("Maps").with("by_int32", structColumn(entry(1), entry(0.5))), "Maps.by_int32[1].key",
              "float64 0.5", "a value of int32");
  expectError(structOf("Maps").with("by_int32", scalar(1.0)), "Maps.by_int32", "float64 1-by-1",
              "a struct column or a list of structs with the fields key and value");
  expectError(structOf("Maps").with("by_int32", list(scalar(1.0))), "Maps.by_int32[0]", "float64 1-by-1",
              "a struct with the fields key and value");
  expectError(structOf("Maps").with("by_int32", structColumn(entry(1).with("UnknownFields", bytes("")))),
              "Maps.by_int32[0]", "the field \"UnknownFields\"",
              "fields of " + typeName("Maps") + ".ByInt32Entry (key, value)");
  expectError(structOf("Maps").with("by_string", structColumn(StructOf(), StructOf())), "Maps.by_string",
              "struct 2-by-1", "a struct 1-by-1 with a field for each key");
  expectError(structOf("Maps").with("by_string", StructOf().with("k", text("v"))), "Maps.by_string.k", "text 1-by-1",
              "int32");
}

TEST(EncodeErrors, SpecialTextsMustBeOfTheirForm) {
  const auto wellKnown = [](std::string_view field, qxArrayPtr value) {
    return structOf("WellKnown").with(field, std::move(value));
  };
  expectError(wellKnown("timestamp", text("yesterday")), "WellKnown.timestamp", "\"yesterday\"",
              "a time like 2024-02-29T12:00:00.5Z, of the years 1 to 9999");
  expectError(wellKnown("duration", text("1 h")), "WellKnown.duration", "\"1 h\"",
              "a duration in seconds like -1.5s, of at most 10000 years");
  expectError(wellKnown("field_mask", text("a,,b")), "WellKnown.field_mask", "\"a,,b\"",
              "paths with single commas between them");
  expectError(wellKnown("field_mask", text("a,")), "WellKnown.field_mask", "\"a,\"",
              "paths with single commas between them");
  expectError(wellKnown("timestamp", scalar(1.0)), "WellKnown.timestamp", "float64 1-by-1",
              "a text row or a struct 1-by-1 (google.protobuf.Timestamp)");
  expectError(wellKnown("list", text("a")), "WellKnown.list", "text 1-by-1",
              "a struct column or a list (google.protobuf.Value)");
  expectError(wellKnown("value", columnOf<double>({1, 2})), "WellKnown.value", "float64 2-by-1", "float64 1-by-1");
  expectError(wellKnown("value", structColumn(StructOf(), StructOf())), "WellKnown.value", "struct 2-by-1",
              "a struct 1-by-1");
  expectError(wellKnown("value", qxCreateObject("K", nullptr)), "WellKnown.value", "object 1-by-1",
              "a number, text, boolean, list or struct");
  expectError(wellKnown("value", list(list(nullptr))), "WellKnown.value[0][0]", "no value", "a value");
  expectError(wellKnown("int32_value", text("a")), "WellKnown.int32_value", "text 1-by-1", "int32");
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
