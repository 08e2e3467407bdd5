// How a caller of the encoding library packs messages into its own Any type, and unpacks them.
#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <memory>

namespace parallel::protobufencoding {

// Threads: one encoder may be used by several threads when its implementation has no state.
class AnyEncoder {
 public:
  virtual ~AnyEncoder() = default;

  // Whether messages of this type are Any messages, to be unpacked on the way to the host and packed on the way back.
  // Asked only of types that have the fields `string type_url` and `bytes value`, without presence, and no others.
  virtual bool isAnyMessage(const google::protobuf::Descriptor* descriptor) = 0;
  // A new Any that holds `message`, which is of at most 2^31 - 1 bytes. The mapping keeps its URL and value as they are.
  virtual std::unique_ptr<google::protobuf::Message> encodeToAny(const google::protobuf::Message& message) = 0;
  // The message inside `any`, which then stands for it however much of the value could be read; null, say for an unknown
  // type, leaves the Any packed.
  virtual std::unique_ptr<google::protobuf::Message> decodeFromAny(const google::protobuf::Message& any) = 0;
};

}  // namespace parallel::protobufencoding
