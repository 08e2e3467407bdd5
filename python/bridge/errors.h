// Native exceptions as Python's.
//
// Identified errors, the service framework's and nested ones become zks.Error, which the package's own factory makes of
// the levels of the chain and the text of its expansion. The host's interrupt becomes what interrupted it.
#pragma once

#include <pybind11/pybind11.h>

namespace zks::bridge {

// Called as factory(levels, text); a level is a tuple of kind, component, name, text, outermost first.
void setErrorFactory(pybind11::object factory);

void registerErrors();

}  // namespace zks::bridge
