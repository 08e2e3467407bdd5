// Host arrays of Python values. The rules: docs/python.md.
#pragma once

#include <pybind11/pybind11.h>

#include <string>

#include "platform/array/qxArray.h"

namespace zks::bridge {

// How long the host array may use memory of the Python object.
enum class Memory {
  Borrow,  // as long as it likes: whoever asks sees to it that the array does not live past the call, or says so
  Copy,    // not at all, unless nobody can change it
};

// TypeError names the type, or the dtype, of what has no host form; OverflowError an integer of more than 64 bits. Both
// say where in the value it is. A signal handler that raises ends the conversion.
// Needs the interpreter's lock; the result may be destroyed without it.
qxArrayPtr fromPython(pybind11::handle value, Memory memory);

// The bytes of a bytes-like object, or of an array whose elements are one byte, as a column: as they lie in memory.
qxArrayPtr bytesFromPython(pybind11::handle value, Memory memory);

// The name of a file: str, bytes or os.PathLike.
std::string pathFromPython(pybind11::handle value);

}  // namespace zks::bridge
