// Python values of the structs that stand for protobuf messages. The rules: docs/python.md.
//
// What a field may hold, its message type says; so a repeated field is a list, or a column of numbers, for any count.
#pragma once

#include <pybind11/pybind11.h>

#include "platform/array/qxArray.h"

namespace zks::bridge {

// Of a 1-by-1 struct; a zks.Message when its field MessageType names a known type. Needs the interpreter's lock.
pybind11::object messageToPython(qxArrayPtr message);

// Whether it is a 1-by-1 struct that names a known type.
bool isMessage(const qxArray* array);

// Called as factory(dict) for each message, to make the object that users see.
void setMessageFactory(pybind11::object factory);

}  // namespace zks::bridge
