#include "transport/protobuf/AnyEncoderImpl.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/duration.pb.h>
#include <google/protobuf/empty.pb.h>
#include <gtest/gtest.h>

#include <type_traits>
#include <typeinfo>

#include "platform/zksmessages/zksmessages.pb.h"

namespace parallel::spf::transport::protobuf {
namespace {

using Encoder = AnyEncoderImpl<zksmessages::Any, zksmessages::Missing>;

static_assert(std::is_base_of_v<protobufencoding::AnyEncoder, Encoder>);
static_assert(sizeof(Encoder) == sizeof(void*), "no state beside the virtual functions");

zksmessages::Any packed(std::string url, std::string value) {
  zksmessages::Any any;
  any.set_type_url(std::move(url));
  any.set_value(std::move(value));
  return any;
}

TEST(AnyEncoderImpl, KnowsItsAnyTypeByFullName) {
  Encoder encoder;
  EXPECT_TRUE(encoder.isAnyMessage(zksmessages::Any::descriptor()));
  EXPECT_FALSE(encoder.isAnyMessage(google::protobuf::Any::descriptor()));
  EXPECT_FALSE(encoder.isAnyMessage(zksmessages::Missing::descriptor()));
}

TEST(AnyEncoderImpl, WorksForOtherMessageLibraries) {
  AnyEncoderImpl<google::protobuf::Any, google::protobuf::Empty> encoder;
  EXPECT_TRUE(encoder.isAnyMessage(google::protobuf::Any::descriptor()));
  EXPECT_FALSE(encoder.isAnyMessage(zksmessages::Any::descriptor()));
  EXPECT_EQ(encoder.decodeFromAny(google::protobuf::Any())->GetDescriptor(), google::protobuf::Empty::descriptor());
}

TEST(AnyEncoderImpl, EncodesUrlAndBytes) {
  google::protobuf::Duration message;
  message.set_seconds(5);
  const auto any = Encoder().encodeToAny(message);
  const auto& typed = dynamic_cast<const zksmessages::Any&>(*any);
  EXPECT_EQ(typed.type_url(), "type.googleapis.com/google.protobuf.Duration");
  EXPECT_EQ(typed.value(), "\x08\x05");
  EXPECT_EQ(any->GetArena(), nullptr);
}

TEST(AnyEncoderImpl, EncodesMissingUnderItsOwnUrl) {
  const auto any = Encoder().encodeToAny(zksmessages::Missing());
  const auto& typed = dynamic_cast<const zksmessages::Any&>(*any);
  EXPECT_EQ(typed.type_url(), "type.googleapis.com/parallel.zksmessages.Missing");
  EXPECT_EQ(typed.value(), "");
}

TEST(AnyEncoderImpl, DecodesEmptyUrlToMissing) {
  EXPECT_EQ(Encoder().decodeFromAny(packed("", ""))->GetDescriptor(), zksmessages::Missing::descriptor());
  EXPECT_EQ(Encoder().decodeFromAny(packed("", "ignored"))->ByteSizeLong(), 0U);
}

TEST(AnyEncoderImpl, DecodesKnownType) {
  const auto message = Encoder().decodeFromAny(packed("type.googleapis.com/google.protobuf.Duration", "\x08\x05"));
  EXPECT_EQ(dynamic_cast<const google::protobuf::Duration&>(*message).seconds(), 5);
}

TEST(AnyEncoderImpl, DecodesUnknownTypeToNothing) {
  EXPECT_EQ(Encoder().decodeFromAny(packed("type.googleapis.com/no.Such", "\x08\x05")), nullptr);
}

TEST(AnyEncoderImpl, DecodesCutValueAsFarAsItGoes) {
  const auto message =
      Encoder().decodeFromAny(packed("type.googleapis.com/google.protobuf.Duration", std::string("\x08\x05\x10", 3)));
  EXPECT_EQ(dynamic_cast<const google::protobuf::Duration&>(*message).seconds(), 5);
}

TEST(AnyEncoderImpl, PrintsNothingOfAValueThatIsDamaged) {
  ::testing::internal::CaptureStderr();
  const auto message =
      Encoder().decodeFromAny(packed("type.googleapis.com/parallel.zksmessages.Any", "\x0A\x02\xFF\xFE\x12\x01v"));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(dynamic_cast<const zksmessages::Any&>(*message).type_url(), "\xFF\xFE");
}

TEST(AnyEncoderImpl, RefusesMessagesOfAnotherType) {
  EXPECT_THROW(Encoder().decodeFromAny(zksmessages::Missing()), std::bad_cast);
}

}  // namespace
}  // namespace parallel::spf::transport::protobuf
