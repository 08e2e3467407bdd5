// Protobuf's parser, without what it says on the side.
//
// The parser prints the name of a string field that is not UTF-8, by default to the process's standard error: a peer
// could write to a user's terminal. Only a process-wide switch keeps it silent, and that belongs to the host. So the
// bytes are looked through first, and fields that the parser would report are read without it.
//
// Threads: any, at once.
#pragma once

#include <google/protobuf/message.h>

#include <cstddef>
#include <string_view>

namespace parallel::protobufencoding {

// Replaces `message` by what the parser makes of the bytes, and tells whether it read them all. Otherwise the message
// holds what was read until then, text that is not UTF-8 included. Required fields are not asked for.
//
// The parser counts in int, and the length is narrowed to that: of 2^32 + n bytes the first n are parsed.
// `MessageTooLarge` for a length that is negative then, which some versions of the parser do not survive.
bool parseQuietly(google::protobuf::Message& message, const void* data, std::size_t nbytes);

inline bool parseQuietly(google::protobuf::Message& message, std::string_view bytes) {
  return parseQuietly(message, bytes.data(), bytes.size());
}

}  // namespace parallel::protobufencoding
