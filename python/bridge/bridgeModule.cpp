// The extension module zks._bridge: the native part of the package zks.
#include <pybind11/pybind11.h>

#include "python/bridge/bindings.h"
#include "python/bridge/errors.h"

PYBIND11_MODULE(_bridge, module) {
  module.doc() = "The native part of the package zks. Not for users.";
  zks::bridge::registerErrors();
  zks::bridge::bindValues(module);
  zks::bridge::bindClassSystem(module);
  zks::bridge::bindLogging(module);
  zks::bridge::bindSessions(module);
}
