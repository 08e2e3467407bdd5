// The items of a request, each with its kind.
//
// Ownership: an item shares the array that it was made of and the file is read when the call is made.
// Errors:    a file that cannot be opened is found out here, `CannotReadFile`; one that fails later fails the call with
//            the same error. Arrays that do not fit their kind fail the call.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "transport/data/SerializableData.h"

namespace parallel::toolbox {

using ItemKind = zksmessages::ItemKind;

struct Item {
  ItemKind kind = zksmessages::ITEM_KIND_UNSPECIFIED;
  std::shared_ptr<spf::transport::SerializableData> data;
  std::optional<std::uint64_t> nbytes;  // of a plain item
};

// Any array.
Item arrayItem(const qxArray* array);
// A 1-by-1 struct whose field "MessageType" names the message.
Item messageItem(const qxArray* message);
Item messageItem(const google::protobuf::Message& message);
// The same message as the result of a ResultPayload, which is the form that messages have in replies: for "echo".
Item resultItem(const qxArray* message);
// Bytes: an array of a class whose elements are one byte; `WrongClass` for others, which would lose data.
Item plainItem(const qxArray* bytes);
// The contents of a regular file.
Item fileItem(const std::string& path);

}  // namespace parallel::toolbox
