// Host arrays of NumPy arrays and of bytes-like objects.
#pragma once

#include <pybind11/numpy.h>

#include "platform/array/qxArray.h"
#include "python/bridge/PythonPath.h"
#include "python/bridge/fromPython.h"

namespace zks::bridge {

// Of any dtype but object. TypeError names a dtype without a host form.
qxArrayPtr arrayFromNumPy(pybind11::array array, Memory memory, const PythonPath& path);

qxArrayPtr bytesFromBytes(pybind11::object bytes);
// The bytes of whatever elements, as they lie in memory; of views with gaps, in row-major order.
qxArrayPtr bytesFromBuffer(pybind11::handle value, Memory memory);

void refuseMasked(const pybind11::array& array, const PythonPath& path);

// With at least two dimensions.
std::vector<std::size_t> hostDimensions(const pybind11::array& array);

}  // namespace zks::bridge
