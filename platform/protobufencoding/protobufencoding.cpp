#include "platform/protobufencoding/protobufencoding.h"

#include <stdexcept>

#include "platform/protobufencoding/internal/MessageDecoder.h"
#include "platform/protobufencoding/internal/MessageEncoder.h"
#include "platform/protobufencoding/internal/MessageTypes.h"

namespace parallel::protobufencoding {

std::unique_ptr<google::protobuf::Message> encode(const qxArray* value, AnyEncoder* anyEncoder, int options) {
  if (options != 0)
    throw std::invalid_argument("protobufencoding::encode: options must be 0");
  return MessageEncoder(anyEncoder).encode(value);
}

qxArrayPtr decode(const google::protobuf::Message& message, AnyEncoder* anyEncoder) {
  return MessageDecoder(anyEncoder).generalForm(message);
}

std::string getTypeUrl(const google::protobuf::Message& message) {
  return "type.googleapis.com/" + std::string(message.GetDescriptor()->full_name());
}

std::unique_ptr<google::protobuf::Message> generateMessage(const std::string& typeUrl) {
  const std::size_t slash = typeUrl.rfind('/');
  return slash == std::string::npos ? nullptr : MessageTypes::create(typeUrl.substr(slash + 1));
}

std::unique_ptr<google::protobuf::Message> generateMessageByName(const std::string& fullName) {
  return MessageTypes::create(fullName);
}

void loadDescriptorSet(const std::string& bytes) {
  MessageTypes::add(bytes);
}

}  // namespace parallel::protobufencoding
