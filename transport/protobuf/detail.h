// Host values to messages and back, with the scheduler's own Any.
// Ownership: results belong to the caller.
// Threads:   any, at once.
// Errors:    those of platform/protobufencoding/protobufencoding.h.
#pragma once

#include <google/protobuf/message.h>

#include <memory>

#include "platform/array/qxArray.h"

namespace parallel::spf::transport::protobuf::detail {

std::unique_ptr<google::protobuf::Message> encode(const qxArray* value);

qxArrayPtr decode(const google::protobuf::Message& message);

}  // namespace parallel::spf::transport::protobuf::detail
