// Calls of registered classes by name: what a front end does with what introspection.h shows.
//
// Among the methods of a name, the number of inputs chooses. What the method throws passes through unchanged; before it
// runs: `NoSuchClass`, `NoSuchMethod`, `WrongMethodKind`, `TooManyInputs`, `NotEnoughInputs`, `TooManyOutputs`,
// `WrongArgumentType`, `NotAHandle`, `InvalidHandle`.
//
// Ownership: inputs are borrowed for the call; outputs are the caller's. An object stays alive while one of its methods
//            runs, and its class while any handle is left, whatever happens to the registration meanwhile.
// Outputs:   as many as the method makes, whether `wantedOutputs` is 0 or 1; more is an error.
// Threads:   any; no lock is held while the method runs. An object's class says whether two threads may use it at once.
#pragma once

#include <span>
#include <string_view>
#include <vector>

#include "platform/array/qxArray.h"

namespace tova {

using Inputs = std::span<const qxArray* const>;

std::vector<qxArrayPtr> callStaticMethod(std::string_view className, std::string_view method, int wantedOutputs,
                                         Inputs inputs);

// Calls an instance method of the object that `handle` holds.
std::vector<qxArrayPtr> callMethod(const qxArray* handle, std::string_view method, int wantedOutputs, Inputs inputs);

// A new object. `NoConstructor`, `AbstractClass`.
qxArrayPtr callConstructor(std::string_view className, Inputs inputs);

}  // namespace tova
