// The library as a host loads it: by its name, with its load hook called, its builtins found by theirs.
//
// Threads: any, after load().
#pragma once

#include <string>

#include "platform/tova/builtins.h"

namespace zks::bridge {

class HostLibrary {
 public:
  // Loads the library and registers its classes, once. `CannotLoad`.
  static void load();
  // `NoSuchBuiltin`.
  static tova::Builtin builtin(const std::string& qualifiedName);
};

}  // namespace zks::bridge
