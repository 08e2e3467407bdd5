// Messages as they are after their way through a host struct.
#pragma once

#include <google/protobuf/message.h>

#include "platform/protobufencoding/AnyEncoder.h"

namespace parallel::protobufencoding::testing {

// Writes the value of each Any inside anew, as decode and encode do: google.protobuf.Any, and with an encoder also the
// scheduler's, under Missing's URL where it had none.
void writeAnysAnew(google::protobuf::Message& message, AnyEncoder* anyEncoder);

}  // namespace parallel::protobufencoding::testing
