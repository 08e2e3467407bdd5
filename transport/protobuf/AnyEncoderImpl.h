// Packs messages into the Any type of a message library and unpacks them. MissingType stands for the value of an Any
// without a type URL.
// Threads: any, at once; there is no state.
// Errors:  encodeToAny throws MessageTooLarge from 2^31 bytes on; decodeFromAny throws std::bad_cast for a message that
//          is not an AnyType.
#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <memory>
#include <string>

#include "platform/protobufencoding/AnyEncoder.h"
#include "platform/protobufencoding/parseQuietly.h"
#include "platform/protobufencoding/protobufencoding.h"
#include "transport/protobuf/messageNbytes.h"

namespace parallel::spf::transport::protobuf {

template <class AnyType, class MissingType>
class AnyEncoderImpl : public protobufencoding::AnyEncoder {
 public:
  bool isAnyMessage(const google::protobuf::Descriptor* descriptor) override {
    static const std::string ANY_FULL_NAME(AnyType::descriptor()->full_name());
    return descriptor->full_name() == ANY_FULL_NAME;
  }

  std::unique_ptr<google::protobuf::Message> encodeToAny(const google::protobuf::Message& message) override {
    auto any = std::make_unique<AnyType>();
    any->set_type_url(protobufencoding::getTypeUrl(message));
    static_cast<void>(messageNbytes(message.ByteSizeLong()));  // or protobuf would report a larger one
    static_cast<void>(message.SerializeToString(any->mutable_value()));
    return any;
  }

  // A value that is not all of one message is read as far as the parser gets.
  std::unique_ptr<google::protobuf::Message> decodeFromAny(const google::protobuf::Message& message) override {
    const auto& any = dynamic_cast<const AnyType&>(message);
    if (any.type_url().empty())
      return std::make_unique<MissingType>();
    auto content = protobufencoding::generateMessage(any.type_url());
    if (content != nullptr)
      static_cast<void>(protobufencoding::parseQuietly(*content, any.value()));
    return content;
  }
};

}  // namespace parallel::spf::transport::protobuf
