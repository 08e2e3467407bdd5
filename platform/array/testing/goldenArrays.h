// Arrays whose serialised bytes are known: the worked examples of docs/array-format.md and the values they stand for.
//
// Only for tests. The document's folder comes in as the macro ZKS_SOURCE_DIR.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"

namespace array_testing {

using Bytes = std::vector<unsigned char>;

// The hex blocks of the document, by the name that follows "hex" on the fence.
std::map<std::string, Bytes> documentedBytes();

// The array that each block describes, built by the array functions.
std::map<std::string, qxArrayPtr> documentedArrays();

// The bytes that qxSerializeEx writes.
Bytes serialised(const qxArray* array);

// What qxDeserialize makes of the bytes; may be null. The bytes are first moved to a block of exactly their size, so
// that an address sanitizer sees every read past the end.
qxArrayPtr deserialised(const Bytes& bytes);

// "d9 d9f7": for messages.
std::string hexText(const Bytes& bytes);
Bytes bytesFromHex(const std::string& text);

}  // namespace array_testing
