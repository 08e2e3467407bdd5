#include "transport/protobuf/detail.h"

#include <google/protobuf/duration.pb.h>
#include <gtest/gtest.h>

#include "platform/protobufencoding/protobufencoding.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "transport/protobuf/AnyEncoderImpl.h"

namespace parallel::spf::transport::protobuf {
namespace {

TEST(Detail, AnyFieldWithAnEmptyUrlDecodesToTheValueOfMissing) {
  zksmessages::ResultPayload message;
  message.mutable_result();
  const qxArrayPtr value = detail::decode(message);
  const qxArrayPtr missing = detail::decode(zksmessages::Missing());
  EXPECT_TRUE(qxEqual(qxGetField(value.get(), 0, "result"), missing.get()));
}

TEST(Detail, AnyFieldWithAnEmptyUrlAndAValueDecodesToTheValueOfMissing) {
  zksmessages::ResultPayload message;
  message.mutable_result()->set_value("\x08\x05");
  const qxArrayPtr value = detail::decode(message);
  const qxArrayPtr missing = detail::decode(zksmessages::Missing());
  EXPECT_TRUE(qxEqual(qxGetField(value.get(), 0, "result"), missing.get()));
}

TEST(Detail, AnyFieldWithACutValueDecodesAsFarAsItGoes) {
  zksmessages::ResultPayload message;
  message.mutable_result()->set_type_url("type.googleapis.com/google.protobuf.Duration");
  message.mutable_result()->set_value("\x08\x05\x10");
  const qxArrayPtr value = detail::decode(message);
  google::protobuf::Duration read;
  read.set_seconds(5);
  EXPECT_TRUE(qxEqual(qxGetField(value.get(), 0, "result"), detail::decode(read).get()));
}

TEST(Detail, MissingInsideAnAnyKeepsTheUrlThatTheHookSets) {
  zksmessages::ResultPayload message;
  *message.mutable_result() = dynamic_cast<const zksmessages::Any&>(
      *AnyEncoderImpl<zksmessages::Any, zksmessages::Missing>().encodeToAny(zksmessages::Missing()));
  const qxArrayPtr value = detail::decode(message);
  EXPECT_FALSE(qxHasField(qxGetField(value.get(), 0, "result"), "TypeUrl"));
  EXPECT_EQ(detail::encode(value.get())->SerializeAsString(), message.SerializeAsString());
}

TEST(Detail, ResultOfEachMethodComesBack) {
  zksmessages::TesselTaskExecutionInfo info;
  info.set_outcome(zksmessages::TesselTaskExecutionInfo::OUTCOME_EXITED);
  info.set_exit_status(3);
  info.mutable_wall_time()->set_nanos(500'000'000);
  info.add_missing_outputs("a.txt");
  zksmessages::ResultPayload message;
  message.mutable_result()->set_type_url(protobufencoding::getTypeUrl(info));
  message.mutable_result()->set_value(info.SerializeAsString());

  const qxArrayPtr value = detail::decode(message);
  const qxArray* result = qxGetField(value.get(), 0, "result");
  EXPECT_EQ(qxGetStringUtf8(qxGetField(result, 0, "MessageType")), "parallel.zksmessages.TesselTaskExecutionInfo");
  EXPECT_EQ(qxGetStringUtf8(qxGetField(result, 0, "outcome")), "OUTCOME_EXITED");
  EXPECT_EQ(qxGetStringUtf8(qxGetField(result, 0, "wall_time")), "0.500s");
  EXPECT_EQ(qxGetElements<std::int32_t>(qxGetField(result, 0, "exit_status"))[0], 3);
  EXPECT_FALSE(qxHasField(result, "signal"));
  EXPECT_EQ(detail::encode(value.get())->SerializeAsString(), message.SerializeAsString());
}

}  // namespace
}  // namespace parallel::spf::transport::protobuf
