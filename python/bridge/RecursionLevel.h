// One level of a recursion over values that users made: lists and dicts may be deep, or contain themselves.
#pragma once

#include <pybind11/pybind11.h>

namespace zks::bridge {

class RecursionLevel {
 public:
  // RecursionError, which ends in `where`, past the interpreter's own limit.
  explicit RecursionLevel(const char* where) {
    if (Py_EnterRecursiveCall(where) != 0)
      throw pybind11::error_already_set();
  }
  ~RecursionLevel() { Py_LeaveRecursiveCall(); }
  RecursionLevel(const RecursionLevel&) = delete;
  RecursionLevel& operator=(const RecursionLevel&) = delete;
};

}  // namespace zks::bridge
