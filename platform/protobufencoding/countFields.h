// How many values a parser would make of the bytes of a message, told without making any.
//
// For bytes that a peer chose: a field takes two bytes on the wire, and in memory an object of its own.
#pragma once

#include <google/protobuf/descriptor.h>

#include <cstddef>
#include <string_view>

namespace parallel::protobufencoding {

// The fields in the bytes, those that the type does not know and those inside messages and groups included. A packed
// field counts as one. Counts no further than to the first past `most`. Of damaged bytes, at least as many as the parser
// reads.
std::size_t countFields(const google::protobuf::Descriptor& type, std::string_view bytes, std::size_t most);

}  // namespace parallel::protobufencoding
