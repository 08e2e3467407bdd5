// Any messages: those that the caller's AnyEncoder knows, and protobuf's own google.protobuf.Any always.
// Threads: one thread at a time per object.
#pragma once

#include <google/protobuf/message.h>

#include <map>
#include <memory>
#include <string>

#include "platform/protobufencoding/AnyEncoder.h"
#include "platform/protobufencoding/internal/MessageShapes.h"

namespace parallel::protobufencoding {

class AnyMessages {
 public:
  // `callers` may be null.
  explicit AnyMessages(AnyEncoder* callers) : callers_(callers) {}

  bool isAny(const MessageShape& shape);

  // The message inside, as its encoder gives it; null when it gives none.
  std::unique_ptr<google::protobuf::Message> unpack(const google::protobuf::Message& any, const MessageShape& shape);

  // Puts `message`, of at most kMostCount bytes, into `any`, which is of the type that `shape` describes.
  void pack(const google::protobuf::Message& message, google::protobuf::Message& any, const MessageShape& shape);

  static std::string typeUrl(const google::protobuf::Message& any);
  static void setTypeUrl(google::protobuf::Message& any, std::string url);

 private:
  AnyEncoder& encoderFor(const MessageShape& shape);
  std::unique_ptr<google::protobuf::Message> decode(const google::protobuf::Message& any, const MessageShape& shape);

  AnyEncoder* callers_;
  std::map<const MessageShape*, bool> isAny_;
};

}  // namespace parallel::protobufencoding
