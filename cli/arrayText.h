// Arrays as users type them: nested lists of numbers, as in JSON, with the class before them.
//
//     [[1, 2], [3, 4]]      float64, 2-by-2; element (i, j) is the j-th of the i-th list
//     [1, 2, 3]             3-by-1, since a missing second dimension means 1
//     int64:9007199254740993   a scalar, exact
//     [true, false]         boolean
//     "words"               text
//
// Errors: UsageError says what is wrong and where.
#pragma once

#include <string>
#include <string_view>

#include "platform/array/qxArray.h"

namespace zks {

qxArrayPtr parseArrayText(std::string_view text);

}  // namespace zks
