// Lets Ctrl-C, or another signal's handler that raises, end a conversion of many values.
#pragma once

#include <pybind11/pybind11.h>

namespace zks::bridge {

// To be called for each value; asks the interpreter now and then. Needs its lock.
inline void checkSignalsNowAndThen() {
  constexpr unsigned kInterval = 4096;
  static unsigned calls = 0;  // guarded by the interpreter's lock
  if (++calls % kInterval == 0 && PyErr_CheckSignals() != 0)
    throw pybind11::error_already_set();
}

}  // namespace zks::bridge
