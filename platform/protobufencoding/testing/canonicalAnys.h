// What a struct does not keep: how the bytes inside an Any were written, when their message is unpacked.
#pragma once

#include <google/protobuf/message.h>

namespace parallel::protobufencoding::testing {

// Writes the value of every Any that is unpacked into structs anew, in deterministic encoding, also those in other
// Anys.
void writeAnysAnew(google::protobuf::Message& message);

}  // namespace parallel::protobufencoding::testing
