#include "toolbox/hostMessage.h"

#include "platform/protobufencoding/protobufencoding.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "transport/protobuf/AnyEncoderImpl.h"

namespace parallel::toolbox {
namespace {

using Packing = spf::transport::protobuf::AnyEncoderImpl<zksmessages::Any, zksmessages::Missing>;

}  // namespace

qxArrayPtr hostFromMessage(const google::protobuf::Message& message) {
  Packing packing;
  return protobufencoding::decode(message, &packing);
}

std::unique_ptr<google::protobuf::Message> messageFromHost(const qxArray* value) {
  Packing packing;
  return protobufencoding::encode(value, &packing, 0);
}

bool tryMessageFromHost(const qxArray* value, google::protobuf::Message& message) {
  const auto found = messageFromHost(value);
  if (found->GetDescriptor() != message.GetDescriptor())
    return false;
  message.CopyFrom(*found);
  return true;
}

}  // namespace parallel::toolbox
