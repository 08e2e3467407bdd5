// Single fields: each kind in golden bytes, presence, and the numbers at the ends of their ranges.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>

#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/golden.h"
#include "platform/protobufencoding/testing/testTypes.h"

namespace parallel::protobufencoding::testing {
namespace {

using Limits32 = std::numeric_limits<std::int32_t>;
using Limits64 = std::numeric_limits<std::int64_t>;

TEST(SingleFields, EmptyProto3MessageHasAllFieldsWithoutPresence) {
  expectGolden(zeroScalars(), "");
}

TEST(SingleFields, EachKindHasItsClassAndItsBytes) {
  expectGolden(zeroScalars().with("a_double", scalar(1.5)), "09 00 00 00 00 00 00 f8 3f");
  expectGolden(zeroScalars().with("a_float", scalar(1.5F)), "15 00 00 c0 3f");
  expectGolden(zeroScalars().with("a_int32", scalar<std::int32_t>(-2)), "18 fe ff ff ff ff ff ff ff ff 01");
  expectGolden(zeroScalars().with("a_int64", scalar<std::int64_t>(150)), "20 96 01");
  expectGolden(zeroScalars().with("a_uint32", scalar<std::uint32_t>(7)), "28 07");
  expectGolden(zeroScalars().with("a_uint64", scalar<std::uint64_t>(7)), "30 07");
  expectGolden(zeroScalars().with("a_sint32", scalar<std::int32_t>(-2)), "38 03");
  expectGolden(zeroScalars().with("a_sint64", scalar<std::int64_t>(-2)), "40 03");
  expectGolden(zeroScalars().with("a_fixed32", scalar<std::uint32_t>(1)), "4d 01 00 00 00");
  expectGolden(zeroScalars().with("a_fixed64", scalar<std::uint64_t>(1)), "51 01 00 00 00 00 00 00 00");
  expectGolden(zeroScalars().with("a_sfixed32", scalar<std::int32_t>(-1)), "5d ff ff ff ff");
  expectGolden(zeroScalars().with("a_sfixed64", scalar<std::int64_t>(-1)), "61 ff ff ff ff ff ff ff ff");
  expectGolden(zeroScalars().with("a_bool", boolean(true)), "68 01");
  expectGolden(zeroScalars().with("a_string", text("a\xc3\xa4")), "72 03 61 c3 a4");
  expectGolden(zeroScalars().with("a_bytes", bytes({"\0\xff", 2})), "7a 02 00 ff");
  expectGolden(zeroScalars().with("a_colour", text("RED")), "80 01 01");
  expectGolden(zeroScalars().with("a_point", point(3, 0)), "8a 01 02 08 03");
}

TEST(SingleFields, UnsetOptionalIsAbsentAndSetToDefaultIsThere) {
  expectGolden(structOf("Optionals"), "");
  expectGolden(structOf("Optionals").with("a_double", scalar(0.0)), "09 00 00 00 00 00 00 00 00");
  expectGolden(structOf("Optionals").with("a_int32", scalar<std::int32_t>(0)), "18 00");
  expectGolden(structOf("Optionals").with("a_bool", boolean(false)), "68 00");
  expectGolden(structOf("Optionals").with("a_string", text("")), "72 00");
  expectGolden(structOf("Optionals").with("a_bytes", bytes("")), "7a 00");
  expectGolden(structOf("Optionals").with("a_colour", text("COLOUR_UNSPECIFIED")), "80 01 00");
  expectGolden(structOf("Optionals").with("a_point", point(0, 0)), "8a 01 00");
}

TEST(SingleFields, EncodeAcceptsAbsentAndUnsetFields) {
  expectEncodes(structOf("Scalars").get(), "");
  expectEncodes(structOf("Scalars").with("a_int32", nullptr).get(), "");
}

TEST(SingleFields, IntegersAreExactAtTheEndsOfTheirRange) {
  Scalars message;
  message.set_a_int32(Limits32::min());
  message.set_a_sint32(Limits32::max());
  message.set_a_int64(Limits64::min());
  message.set_a_sint64(Limits64::max());
  message.set_a_uint32(std::numeric_limits<std::uint32_t>::max());
  message.set_a_uint64(std::numeric_limits<std::uint64_t>::max());
  const qxArrayPtr value = decode(message, nullptr);
  EXPECT_EQ(qxGetElements<std::int64_t>(qxGetField(value.get(), 0, "a_int64"))[0], Limits64::min());
  EXPECT_EQ(qxGetElements<std::uint64_t>(qxGetField(value.get(), 0, "a_uint64"))[0],
            std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(deterministic(*encode(value.get(), nullptr, 0)), deterministic(message));
}

// Alone, in a column and in a wrapper. The last two of each are signalling.
TEST(SingleFields, NanPayloadsInfinitiesAndNegativeZeroKeepTheirBits) {
  const auto expectComesBack = [](const google::protobuf::Message& message) {
    EXPECT_EQ(toHex(deterministic(*encode(decode(message, nullptr).get(), nullptr, 0))), toHex(deterministic(message)));
  };
  for (const std::uint64_t bits :
       {0x7ff8000000000001ULL, 0xfff8dead00000000ULL, 0x7ff0000000000000ULL, 0xfff0000000000000ULL,
        0x8000000000000000ULL, 0x0000000000000001ULL, 0x7ff0000000000001ULL, 0xfff4000000000000ULL}) {
    Scalars single;
    single.set_a_double(std::bit_cast<double>(bits));
    expectComesBack(single);
    const qxArrayPtr value = decode(single, nullptr);
    EXPECT_EQ(std::bit_cast<std::uint64_t>(qxGetElements<double>(qxGetField(value.get(), 0, "a_double"))[0]), bits);
    Repeateds column;
    column.add_a_double(single.a_double());
    expectComesBack(column);
    WellKnown wrapper;
    wrapper.mutable_double_value()->set_value(single.a_double());
    expectComesBack(wrapper);
  }
  for (const std::uint32_t bits : {0x7fc00001U, 0xffc0dea0U, 0x7f800000U, 0x80000000U, 0x7f800001U, 0xffa00000U}) {
    Scalars single;
    single.set_a_float(std::bit_cast<float>(bits));
    expectComesBack(single);
    Repeateds column;
    column.add_a_float(single.a_float());
    expectComesBack(column);
    WellKnown wrapper;
    wrapper.mutable_float_value()->set_value(single.a_float());
    expectComesBack(wrapper);
  }
}

TEST(SingleFields, EnumNumberWithoutNameIsKeptAsInt32) {
  expectGolden(zeroScalars().with("a_colour", scalar<std::int32_t>(77)), "80 01 4d");
  expectGolden(zeroScalars().with("a_colour", text("DARK")), "80 01 ff ff ff ff ff ff ff ff ff 01");
}

TEST(SingleFields, EnumAliasEncodesAndDecodesToTheFirstName) {
  expectEncodes(structOf("Scalars").with("a_colour", text("ALSO_GREEN")).get(), "80 01 02");
  expectGolden(zeroScalars().with("a_colour", text("GREEN")), "80 01 02");
}

TEST(SingleFields, EnumNumberWithNameIsAccepted) {
  expectEncodes(structOf("Scalars").with("a_colour", scalar<std::int32_t>(1)).get(), "80 01 01");
  expectEncodes(structOf("Scalars").with("a_colour", scalar(1.0)).get(), "80 01 01");
}

TEST(SingleFields, Float64BecomesAnIntegerFieldWhenItIsOne) {
  expectEncodes(structOf("Scalars").with("a_int32", scalar(-2.0)).get(), "18 fe ff ff ff ff ff ff ff ff 01");
  expectEncodes(structOf("Scalars").with("a_uint64", scalar(7.0)).get(), "30 07");
}

TEST(SingleFields, Float64IsRoundedToFloat32) {
  expectEncodes(structOf("Scalars").with("a_float", scalar(0.1)).get(), "15 cd cc cc 3d");
}

TEST(SingleFields, BytesAndTextMayLieInAnyDirection) {
  expectEncodes(structOf("Scalars").with("a_bytes", matrix<std::uint8_t>(1, 2, {1, 2})).get(), "7a 02 01 02");
  expectEncodes(structOf("Scalars").with("a_string", matrix<char16_t>(2, 1, {u'a', u'b'})).get(), "72 02 61 62");
}

TEST(SingleFields, Utf8BytesAreAcceptedAsText) {
  expectEncodes(structOf("Scalars").with("a_string", bytes("a\xc3\xa4")).get(), "72 03 61 c3 a4");
}

TEST(SingleFields, TextOutsideTheBasicPlaneGoesBothWays) {
  expectGolden(zeroScalars().with("a_string", text("\xf0\x9f\x98\x80")), "72 04 f0 9f 98 80");
  expectGolden(zeroScalars().with("a_string", text(std::string_view("\0", 1))), "72 01 00");
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
