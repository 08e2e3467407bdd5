// Host values as text for people: numbers as nested lists, as parseArrayText reads them, structs as JSON objects.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/array/qxArray.h"

namespace zks {

// An array of more elements than `limit` is described by its class and shape instead; so are parts of structs and
// lists. Null, which is an element never set, is "null".
std::string formatValue(const qxArray* array, std::size_t limit = 24);

// "float64 2x3", "complex float32 1x1"
std::string formatClassAndShape(const qxArray* array);

// The text between quotes, with what would upset a terminal or a reader of JSON escaped.
std::string quotedText(std::string_view utf8);

}  // namespace zks
