// The encoders of the four kinds of items, and what each can say of its size beforehand.
//
// Each writes content bytes only. Errors: what is said beside each; everything else, the sink's errors too, passes.
#pragma once

#include <cstddef>

#include "platform/array/qxArray.h"

namespace parallel::spf::transport {

class ByteSink;

namespace internal {

// One write of the whole encoded message. A std::exception on the way to the bytes becomes an InternalException whose
// text ends in a newline; a message of 2^31 bytes or more is one of them.
void encodeProtobuf(const qxArray* array, ByteSink& sink);

// One write of the whole serialised array. Objects inside it are saved first.
void encodeQxArray(const qxArray* array, ByteSink& sink);

// One write of as many bytes as the array has elements. `WrongClass` for a class whose elements are not bytes in
// memory.
void encodePlain(const qxArray* array, ByteSink& sink);

// A write per chunk of the file that the array names, then one of nothing. Every failure is logged (levels 256, 16) and
// thrown on as it is.
void encodeFile(const qxArray* array, ByteSink& sink);

// For SerializableData::SizeHint.
std::size_t hintQxArray(const qxArray* array) noexcept;
std::size_t hintPlain(const qxArray* array) noexcept;
std::size_t hintFile(const qxArray* array);  // the file's size now, 0 when it cannot be told

}  // namespace internal
}  // namespace parallel::spf::transport
