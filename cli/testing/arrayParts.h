// For tests: what an array holds, ready to be compared.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/array/qxArray.h"

namespace zks {

template <class T>
std::vector<T> elements(const qxArrayPtr& array) {
  const auto span = qxGetElements<T>(array.get());
  return {span.begin(), span.end()};
}

inline std::vector<std::size_t> dimensions(const qxArrayPtr& array) {
  const auto span = qxGetDimensions(array.get());
  return {span.begin(), span.end()};
}

}  // namespace zks
