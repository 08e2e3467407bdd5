// Python values of host arrays. The rules: docs/python.md.
#pragma once

#include <pybind11/pybind11.h>

#include "platform/array/qxArray.h"

namespace zks::bridge {

enum class Scalars {
  AsArrays,   // a 1-by-1 numeric array is an array
  AsScalars,  // ... a number; so it always is inside lists and structs
};

// Takes the array apart without copying data: NumPy arrays own shares of it, and each may be written to. Data is copied
// only where somebody else shares it. Needs the interpreter's lock.
pybind11::object toPython(qxArrayPtr array, Scalars scalars);

// The bytes of an array of one-byte elements.
pybind11::bytes toBytes(const qxArray* array);

// Called as factory(handle, class name) for each handle met, to make the object that users see.
void setHandleFactory(pybind11::object factory);

}  // namespace zks::bridge
