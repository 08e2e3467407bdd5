// Builtins: native functions that a library offers its host by exporting them, without registering anything.
//
// A builtin is a C++ function of one fixed type, so its exported symbol follows from its name alone.
#pragma once

#include <string>
#include <string_view>

#include "platform/array/qxArray.h"

namespace tova {

// nlhs, plhs, nrhs, prhs: numbers and arrays of outputs and inputs. `plhs` has room for one output even when nlhs is 0.
using Builtin = void (*)(int nlhs, qxArray** plhs, int nrhs, const qxArray** prhs);

// The exported symbol of `void name(int, qxArray**, int, const qxArray**)` as the Itanium C++ ABI writes it.
// `qualifiedName` is like "motors::bnTurn", or "bnTurn" for a function outside namespaces.
std::string builtinSymbol(std::string_view qualifiedName);

// The builtin of a loaded library (what dlopen returned), or null when it exports none of the name. Valid as long as
// the library is loaded.
Builtin findBuiltin(void* library, std::string_view qualifiedName);

}  // namespace tova
