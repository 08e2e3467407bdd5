// A message over 2 GiB, for which there must be several times as much memory.
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/InternalException.h"
#include "platform/errors/catalogue.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "transport/protobuf/AnyEncoderImpl.h"
#include "transport/protobuf/builtins.h"

namespace parallel::spf::transport::protobuf {
namespace {

TEST(SerializeProtobufStruct, RefusesAMessageOfTwoToThe31Bytes) {
  const std::array<std::size_t, 2> one{1, 1};
  const std::array<std::size_t, 2> many{(std::size_t{1} << 31U), 1};
  const std::vector<std::string> names{"MessageType", "value"};
  const qxArrayPtr value = qxCreateStructArray(one, names);
  qxSetField(value.get(), 0, "MessageType", qxCreateStringUtf8("google.protobuf.BytesValue"));
  qxSetField(value.get(), 0, "value", qxCreateNumericArray(many, qxClass::Uint8));
  qxArray* output = nullptr;
  const qxArray* input = value.get();
  try {
    bnSerializeProtobufStruct(1, &output, 1, &input);
    ADD_FAILURE();
  } catch (const InternalException& error) {
    EXPECT_STREQ(error.what(),
                 "Error occurred serializing protobuf message: A message of 2147483654 bytes is larger than a message "
                 "can be; the most is 2147483647 bytes.\n");
  }
  EXPECT_EQ(output, nullptr);
}

TEST(AnyEncoderImpl, RefusesAMessageOfTwoToThe31Bytes) {
  google::protobuf::BytesValue message;
  message.mutable_value()->resize(std::size_t{1} << 31U);
  AnyEncoderImpl<zksmessages::Any, zksmessages::Missing> encoder;
  EXPECT_THROW(encoder.encodeToAny(message), Exception<::parallel::protobuf::MessageTooLarge>);
}

}  // namespace
}  // namespace parallel::spf::transport::protobuf
