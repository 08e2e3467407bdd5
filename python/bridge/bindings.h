// What the extension module consists of; each function adds its part.
#pragma once

#include <pybind11/pybind11.h>

namespace zks::bridge {

void bindValues(pybind11::module_& module);       // conversion, handles, counters
void bindClassSystem(pybind11::module_& module);  // introspection, calls, builtins
void bindSessions(pybind11::module_& module);     // sessions, items, replies
void bindLogging(pybind11::module_& module);

}  // namespace zks::bridge
