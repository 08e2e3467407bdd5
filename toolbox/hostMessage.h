// Typed messages and the host structs that describe them, one into the other.
#pragma once

#include <google/protobuf/message.h>

#include <memory>

#include "platform/array/qxArray.h"

namespace parallel::toolbox {

// The 1-by-1 struct that describes the message; messages inside Any fields are unpacked.
qxArrayPtr hostFromMessage(const google::protobuf::Message& message);

// The message that the struct describes. `EncodeError` when it describes none.
std::unique_ptr<google::protobuf::Message> messageFromHost(const qxArray* value);

// True, with `message` filled, when the struct describes a message of that type.
bool tryMessageFromHost(const qxArray* value, google::protobuf::Message& message);

}  // namespace parallel::toolbox
