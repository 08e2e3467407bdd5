// A caller's AnyEncoder for tests: packs into the scheduler's Any, where an empty URL stands for Missing.
#pragma once

#include "platform/protobufencoding/AnyEncoder.h"
#include "platform/protobufencoding/parseQuietly.h"
#include "platform/protobufencoding/protobufencoding.h"
#include "platform/zksmessages/zksmessages.pb.h"

namespace parallel::protobufencoding::testing {

class SchedulerAnyEncoder : public AnyEncoder {
 public:
  bool isAnyMessage(const google::protobuf::Descriptor* descriptor) override {
    return descriptor->full_name() == zksmessages::Any::descriptor()->full_name();
  }
  std::unique_ptr<google::protobuf::Message> encodeToAny(const google::protobuf::Message& message) override {
    auto any = std::make_unique<zksmessages::Any>();
    any->set_type_url(getTypeUrl(message));
    static_cast<void>(message.SerializeToString(any->mutable_value()));
    return any;
  }
  std::unique_ptr<google::protobuf::Message> decodeFromAny(const google::protobuf::Message& message) override {
    const auto& any = dynamic_cast<const zksmessages::Any&>(message);
    if (any.type_url().empty())
      return std::make_unique<zksmessages::Missing>();
    auto content = generateMessage(any.type_url());
    if (content != nullptr)
      static_cast<void>(parseQuietly(*content, any.value()));
    return content;
  }
};

}  // namespace parallel::protobufencoding::testing
