// Host structs to protobuf messages and back. The mapping, with its departures from ProtoJSON: docs/message-mapping.md.
//
// Ownership: results belong to the caller.
// Threads:   any, at once.
// Errors:    `EncodeError` (component "parallel:protobuf") names the field by its full path, the class found and the
//            class wanted. `DecodeTooDeep`: a message in memory nests deeper than the parser would have taken.
//            `MessageTooLarge`: its unknown fields make it larger than 2^31 - 1 bytes.
#pragma once

#include <google/protobuf/message.h>

#include <memory>
#include <string>

#include "platform/array/qxArray.h"
#include "platform/protobufencoding/AnyEncoder.h"

namespace parallel::protobufencoding {

// The message that a 1-by-1 struct describes; its field "MessageType" is the message's full name. `options` must be 0.
std::unique_ptr<google::protobuf::Message> encode(const qxArray* value, AnyEncoder* anyEncoder, int options);

// The 1-by-1 struct that describes the message.
qxArrayPtr decode(const google::protobuf::Message& message, AnyEncoder* anyEncoder);

// "type.googleapis.com/" and the message's full name, the form that protobuf's own Any uses.
std::string getTypeUrl(const google::protobuf::Message& message);

// An empty message of the type that a URL names (what follows its last slash); null when the type is unknown. Looks in
// the generated pool, then in the descriptor sets that were loaded, the last one first.
std::unique_ptr<google::protobuf::Message> generateMessage(const std::string& typeUrl);

// The same by full name.
std::unique_ptr<google::protobuf::Message> generateMessageByName(const std::string& fullName);

// Adds the types of a FileDescriptorSet (what `protoc --descriptor_set_out --include_imports` writes) to those that
// messages may be of, for the rest of the process. `DescriptorSetError` says what is wrong with the bytes; then nothing
// has been added.
void loadDescriptorSet(const std::string& bytes);

}  // namespace parallel::protobufencoding
