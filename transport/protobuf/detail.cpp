#include "transport/protobuf/detail.h"

#include "platform/protobufencoding/protobufencoding.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "transport/protobuf/AnyEncoderImpl.h"

namespace parallel::spf::transport::protobuf::detail {

namespace {

using SchedulerAnyEncoder = AnyEncoderImpl<zksmessages::Any, zksmessages::Missing>;

}  // namespace

std::unique_ptr<google::protobuf::Message> encode(const qxArray* value) {
  SchedulerAnyEncoder encoder;
  return protobufencoding::encode(value, &encoder, 0);
}

qxArrayPtr decode(const google::protobuf::Message& message) {
  SchedulerAnyEncoder encoder;
  return protobufencoding::decode(message, &encoder);
}

}  // namespace parallel::spf::transport::protobuf::detail
