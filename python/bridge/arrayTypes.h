// The element types that host arrays and NumPy arrays share.
#pragma once

#include <pybind11/numpy.h>

#include <optional>

#include "platform/array/qxArray.h"

namespace zks::bridge {

struct ArrayType {
  qxClass cls;
  bool isComplex;
};

// Nothing for a dtype that the host does not have. The byte order is not looked at.
std::optional<ArrayType> arrayTypeOf(const pybind11::dtype& dtype);

// Of a numeric or boolean class.
pybind11::dtype dtypeOf(ArrayType type);

}  // namespace zks::bridge
