#include "toolbox/hostMessage.h"

#include <string>

#include "platform/errors/InternalException.h"
#include "platform/protobufencoding/protobufencoding.h"
#include "transport/protobuf/AnyEncoderImpl.h"

namespace parallel::toolbox {
namespace {

using zksmessages::ResultPayload;
using Packing = spf::transport::protobuf::AnyEncoderImpl<zksmessages::Any, zksmessages::Missing>;

}  // namespace

qxArrayPtr hostFromMessage(const google::protobuf::Message& message) {
  Packing packing;
  return protobufencoding::decode(message, &packing);
}

qxArrayPtr resultPayloadOf(const qxArray* result) {
  const std::string fields[] = {"MessageType", "result"};
  const std::size_t scalar[] = {1, 1};
  qxArrayPtr payload = qxCreateStructArray(scalar, fields);
  qxSetField(payload.get(), 0, fields[0], qxCreateStringUtf8(ResultPayload::descriptor()->full_name()));
  qxSetField(payload.get(), 0, fields[1], qxCreateSharedCopy(result));
  return payload;
}

zksmessages::Any packedFromHost(const qxArray* value) {
  Packing packing;
  const auto message = protobufencoding::encode(resultPayloadOf(value).get(), &packing, 0);
  const auto* payload = dynamic_cast<const ResultPayload*>(message.get());
  if (payload == nullptr)
    throw InternalException("A ResultPayload was encoded as another message");
  return payload->result();
}

bool tryMessageFromHost(const qxArray* value, google::protobuf::Message& message) {
  const zksmessages::Any packed = packedFromHost(value);
  const std::string& url = packed.type_url();
  return url.substr(url.rfind('/') + 1) == message.GetDescriptor()->full_name() &&
         message.ParseFromString(packed.value());
}

}  // namespace parallel::toolbox
