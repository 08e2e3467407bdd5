// Typed messages and the host structs that describe them, one into the other.
// Errors: `EncodeError` for a struct that describes no message.
#pragma once

#include <google/protobuf/message.h>

#include "platform/array/qxArray.h"
#include "platform/zksmessages/zksmessages.pb.h"

namespace parallel::toolbox {

// The 1-by-1 struct that describes the message; messages inside Any fields are unpacked.
qxArrayPtr hostFromMessage(const google::protobuf::Message& message);

// The struct of a ResultPayload whose result is the message that `result` describes.
qxArrayPtr resultPayloadOf(const qxArray* result);

// The message that a struct describes, packed. The struct may be one that was unpacked, which may say by which URL.
zksmessages::Any packedFromHost(const qxArray* value);

// True, with `message` filled, when the struct describes a message of that type.
bool tryMessageFromHost(const qxArray* value, google::protobuf::Message& message);

}  // namespace parallel::toolbox
