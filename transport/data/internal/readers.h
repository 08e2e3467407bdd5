// The readers of the four kinds of items: what each operation of DeserializableData does with the item's bytes.
//
// Each consumes the stream. Errors are the causes, as they come; DeserializableData logs them and throws its own.
#pragma once

#include <string>

#include "platform/array/qxArray.h"

namespace parallel::spf::transport {

class ByteStream;

namespace internal {

// The whole item as a ResultPayload. An exception of the decoder becomes an InternalException whose text ends in a
// newline; what the parser says of the bytes is not looked at.
qxArrayPtr readProtobuf(ByteStream& stream);

// The whole item as one serialised array, its objects loaded and validated; a share of the default (null: none) when
// the item has no bytes. `DeserializationFailed` when the bytes are not an array.
qxArrayPtr readQxArray(ByteStream& stream, const qxArray* defaultValue);

// A length and that many bytes, as a uint8 column; then reads the item to its end. Bytes that are missing stay zero.
qxArrayPtr readPlain(ByteStream& stream);

// The whole item into a file, created or truncated.
void readToFile(ByteStream& stream, const std::u16string& path);

}  // namespace internal
}  // namespace parallel::spf::transport
