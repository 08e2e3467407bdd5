// The interpreter's lock, let go of and taken again by native code.
//
// Why not pybind11's guards: a thread that asks for the lock when the interpreter is at its end never gets it. CPython
// ends such a thread where it stands (before 3.14), by unwinding its stack, and a destructor on the way ends the
// process. Here the thread stops for ever instead, and the process ends without it.
#pragma once

#include <Python.h>

#include <cxxabi.h>

#include <utility>

namespace zks::bridge {

// The calling thread does nothing any more; the end of the process ends it.
[[noreturn]] void stopForEver() noexcept;

// Without the lock while it lives. Made and ended with the lock held.
class Unlocked {
 public:
  Unlocked() : released_(PyEval_SaveThread()) {}
  ~Unlocked();
  Unlocked(const Unlocked&) = delete;
  Unlocked& operator=(const Unlocked&) = delete;

 private:
  PyThreadState* released_;
};

// Runs Python code, which may let go of the lock and ask for it again: for callers that the unwinding must not pass.
template <class Call>
auto callPython(Call&& call) {
  try {
    return std::forward<Call>(call)();
  } catch (const abi::__forced_unwind&) {
    stopForEver();
  }
}

}  // namespace zks::bridge
