// Host arrays of single values and columns, as the mapping uses them.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "platform/array/qxArray.h"
#include "platform/errors/ustring.h"

namespace parallel::protobufencoding {

inline std::array<std::size_t, 2> column(std::size_t count) {
  return {count, 1};
}

// For comparing and hashing texts: bytes are compared at once, units one by one.
inline std::string_view asBytes(std::u16string_view text) {
  return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t)};
}

// A uint8 column.
qxArrayPtr createBytes(std::string_view bytes);
// A text row; a uint8 column when the bytes are not UTF-8.
qxArrayPtr createTextOrBytes(std::string_view utf8);

}  // namespace parallel::protobufencoding
