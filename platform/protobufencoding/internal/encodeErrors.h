// The clear error of the way from host values to messages, and the words for what was found.
#pragma once

#include <cstddef>
#include <limits>
#include <string>
#include <string_view>

#include "platform/array/qxArray.h"
#include "platform/protobufencoding/internal/FieldPath.h"

namespace parallel::protobufencoding {

[[noreturn]] void throwEncodeError(const FieldPath& path, std::string_view found, std::string_view wanted);

// Of the bytes of a message, and of the elements of a field: protobuf counts both in int.
inline constexpr std::size_t kMostCount = std::numeric_limits<int>::max();

// Class and dimensions: "int32 3-by-1", "text 1-by-5", "complex float64 1-by-1"; "no value" for a null pointer.
std::string describe(const qxArray* array);

bool isScalar(const qxArray* array) noexcept;
// Throws when protobuf cannot count the elements of the array, or the bytes of a message.
void checkCount(const qxArray* array, const FieldPath& path);
void checkMessageBytes(std::size_t nbytes, const FieldPath& path);
// One row, one column, or nothing at all (0-by-0).
bool isVector(const qxArray* array) noexcept;
// The host's empty literal, float64 0-by-0.
bool isEmptyLiteral(const qxArray* array) noexcept;

}  // namespace parallel::protobufencoding
