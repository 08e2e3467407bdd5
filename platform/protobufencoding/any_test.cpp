// Any messages: the caller's own and google.protobuf.Any, of known, unknown and missing types.
#include <gtest/gtest.h>

#include "platform/protobufencoding/testing/SchedulerAnyEncoder.h"
#include "platform/protobufencoding/testing/everything2.pb.h"
#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/golden.h"
#include "platform/protobufencoding/testing/testTypes.h"

namespace parallel::protobufencoding::testing {
namespace {

constexpr std::string_view kPrefix = "type.googleapis.com/";

StructOf parcel(qxArrayPtr content) {
  return structOf("Parcel").with("content", std::move(content)).with("more", list());
}

// A Parcel whose content has this URL and value.
Parcel packed(std::string url, std::string value) {
  Parcel message;
  message.mutable_content()->set_type_url(std::move(url));
  message.mutable_content()->set_value(std::move(value));
  return message;
}

StructOf missing() {
  return StructOf("parallel.zksmessages.Missing");
}

StructOf stillPacked(std::string_view url, std::string_view value) {
  return StructOf("parallel.zksmessages.Any").with("type_url", text(url)).with("value", bytes(value));
}

class AnyFields : public ::testing::Test {
 protected:
  // Both ways, with nothing lost.
  void expectBothWays(const google::protobuf::Message& message, const StructOf& value) {
    expectDecodes(message, value.get(), &encoder_);
    EXPECT_EQ(toHex(deterministic(*encode(value.get(), &encoder_, 0))), toHex(deterministic(message)));
  }

  SchedulerAnyEncoder encoder_;
};

TEST_F(AnyFields, HoldTheStructOfTheMessageInside) {
  expectBothWays(packed(std::string(kPrefix) + typeName("Point"), "\x08\x03"), parcel(point(3, 0)));
}

TEST_F(AnyFields, RepeatedOnesAreAList) {
  Parcel message;
  *message.add_more() = packed(std::string(kPrefix) + typeName("Point"), "\x08\x03").content();
  *message.add_more() = packed(std::string(kPrefix) + "parallel.zksmessages.Missing", "").content();
  expectBothWays(message, structOf("Parcel").with("more", list(point(3, 0), missing())));
}

TEST_F(AnyFields, StructArrayIsAcceptedForRepeatedOnes) {
  Parcel message;
  for (int i = 0; i < 2; ++i)
    *message.add_more() = packed(std::string(kPrefix) + "parallel.zksmessages.Missing", "").content();
  expectEncodes(structOf("Parcel").with("more", structColumn(missing(), missing())).get(),
                toHex(deterministic(message)), &encoder_);
}

TEST_F(AnyFields, EmptyUrlStandsForMissingWhateverTheValue) {
  for (const char* value : {"", "\x08\x03", "no message"}) {
    expectDecodes(packed("", value), parcel(missing()).get(), &encoder_);
    expectDecodes(packed("", value), parcel(decode(zksmessages::Missing(), nullptr)).get(), &encoder_);
  }
}

TEST_F(AnyFields, MissingGoesOutUnderTheUrlThatTheEncoderSets) {
  expectBothWays(packed("type.googleapis.com/parallel.zksmessages.Missing", ""), parcel(missing()));
}

TEST_F(AnyFields, MissingMayBeGivenTheEmptyUrl) {
  expectEncodes(parcel(missing().with("TypeUrl", text(""))).get(), "0a 00", &encoder_);
}

TEST_F(AnyFields, UnusualUrlIsKept) {
  const std::string url = "example.com/types/" + typeName("Point");
  expectBothWays(packed(url, "\x08\x03"), parcel(point(3, 0).with("TypeUrl", text(url))));
}

TEST_F(AnyFields, UnknownTypeStaysPacked) {
  expectBothWays(packed("type.googleapis.com/no.Such", "xyz"),
                 parcel(stillPacked("type.googleapis.com/no.Such", "xyz")));
  expectBothWays(packed("no slash", "xyz"), parcel(stillPacked("no slash", "xyz")));
}

TEST_F(AnyFields, ValueThatIsNotWholeIsReadAsFarAsItGoes) {
  const std::string url = std::string(kPrefix) + typeName("Point");
  expectDecodes(packed(url, "\x08\x03\x10"), parcel(point(3, 0)).get(), &encoder_);
  expectDecodes(packed(url, "\x08"), parcel(point(0, 0)).get(), &encoder_);
}

TEST_F(AnyFields, ValueThatLacksARequiredFieldIsReadAsFarAsItGoes) {
  const std::string url = std::string(kPrefix) + typeName("Demanding");
  const qxArrayPtr value = decode(packed(url, std::string("\x12\x01") + "e"), &encoder_);
  const qxArray* content = qxGetField(value.get(), 0, "content");
  EXPECT_EQ(qxGetStringUtf8(qxGetField(content, 0, "MessageType")), typeName("Demanding"));
}

TEST_F(AnyFields, AreValuesOfMapsToo) {
  Maps maps;
  (*maps.mutable_to_any())["k"].set_type_url(getTypeUrl(Point()));
  expectBothWays(maps, emptyMaps().with("to_any", StructOf().with("k", point(0, 0))));
}

TEST_F(AnyFields, AnyInsideAnAnyStaysPacked) {
  const std::string url = std::string(kPrefix) + "parallel.zksmessages.Any";
  expectBothWays(packed(url, ""), parcel(stillPacked(url, "")));
}

TEST_F(AnyFields, AnyWithUnknownFieldsStaysPacked) {
  Parcel message;
  ASSERT_TRUE(message.mutable_content()->ParseFromString(fromHex("78 01")));
  expectBothWays(message, parcel(stillPacked("", "").with("UnknownFields", bytes(fromHex("78 01")))));
}

TEST_F(AnyFields, WellKnownTypeInsideHasItsGeneralForm) {
  auto duration = StructOf("google.protobuf.Duration")
                      .with("seconds", scalar<std::int64_t>(5))
                      .with("nanos", scalar<std::int32_t>(0));
  expectBothWays(packed(std::string(kPrefix) + "google.protobuf.Duration", "\x08\x05"), parcel(std::move(duration)));
}

// Each level adds two to the depth; the bytes that would lie too deep stay packed.
TEST_F(AnyFields, DeepPackingIsUnpackedAsFarAsTheLimitOfLevels) {
  Parcel message;
  for (int level = 0; level < 70; ++level)
    message = packed(getTypeUrl(message), message.SerializeAsString());
  const qxArrayPtr value = decode(message, &encoder_);
  EXPECT_EQ(deterministic(*encode(value.get(), &encoder_, 0)), deterministic(message));
  int levels = 0;
  const qxArray* inner = value.get();
  while (qxHasField(inner, "content")) {
    inner = qxGetField(inner, 0, "content");
    ++levels;
  }
  EXPECT_EQ(levels, 50);
  EXPECT_EQ(qxGetStringUtf8(qxGetField(inner, 0, "MessageType")), "parallel.zksmessages.Any");
}

TEST_F(AnyFields, WithoutAnEncoderTheSchedulersAnyIsAMessageLikeAnother) {
  const auto value = [] {
    return structOf("Parcel").with("content", stillPacked("u", "v")).with("more", emptyStructColumn({"MessageType"}));
  };
  expectGolden(value(), "0a 06 0a 01 75 12 01 76");
}

TEST_F(AnyFields, TopLevelAnyHasItsGeneralForm) {
  zksmessages::Any any;
  any.set_type_url("u");
  expectDecodes(any, stillPacked("u", "").get(), &encoder_);
  EXPECT_EQ(toHex(deterministic(*encode(stillPacked("u", "").get(), &encoder_, 0))), "0a 01 75");
}

class StandardAny : public ::testing::Test {
 protected:
  StructOf wellKnown(qxArrayPtr any) { return emptyWellKnown().with("any", std::move(any)); }
};

TEST_F(StandardAny, HoldsTheStructOfTheMessageInsideWithoutAnEncoder) {
  const std::string url = std::string(kPrefix) + typeName("Point");
  WellKnown message;
  message.mutable_any()->set_type_url(url);
  message.mutable_any()->set_value("\x08\x03");
  expectDecodes(message, wellKnown(point(3, 0)).get());
  EXPECT_EQ(deterministic(*encode(wellKnown(point(3, 0)).get(), nullptr, 0)), deterministic(message));
}

TEST_F(StandardAny, EmptyOneStaysAsItIs) {
  expectGolden(wellKnown(StructOf("google.protobuf.Any").with("type_url", text("")).with("value", bytes(""))), "0a 00");
}

TEST_F(StandardAny, StaysPackedWhenItsValueIsNotOneWholeMessage) {
  const auto expectPacked = [&](std::string_view type, std::string_view value) {
    const std::string url = std::string(kPrefix) + typeName(type);
    WellKnown message;
    message.mutable_any()->set_type_url(url);
    message.mutable_any()->set_value(std::string(value));
    const auto packed =
        wellKnown(StructOf("google.protobuf.Any").with("type_url", text(url)).with("value", bytes(value)));
    expectDecodes(message, packed.get());
    EXPECT_EQ(deterministic(*encode(packed.get(), nullptr, 0)), deterministic(message));
  };
  expectPacked("Point", "\x08\x03\x10");
  expectPacked("Demanding", std::string("\x12\x01") + "e");  // it lacks a required field
}

TEST_F(StandardAny, MapsInsideArePackedInTheOrderOfTheirKeys) {
  WellKnown message;
  Maps maps;
  for (int i = 0; i < 40; ++i)
    (*maps.mutable_by_int32())[i * 7919 % 101] = i;
  message.mutable_any()->set_type_url(getTypeUrl(maps));
  message.mutable_any()->set_value(deterministic(maps));
  EXPECT_EQ(deterministic(*encode(decode(message, nullptr).get(), nullptr, 0)), deterministic(message));
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
