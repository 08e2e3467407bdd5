// Fields that a message's type does not have, as bytes.
#pragma once

#include <google/protobuf/unknown_field_set.h>

#include <string>

namespace parallel::protobufencoding {

// Throws MessageTooLarge when no message could hold them.
std::string encodedUnknownFields(const google::protobuf::UnknownFieldSet& fields);

}  // namespace parallel::protobufencoding
