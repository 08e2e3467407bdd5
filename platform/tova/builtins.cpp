#include "platform/tova/builtins.h"

#include <dlfcn.h>

#include <cstddef>

namespace tova {
namespace {

// The ABI's reference to the index-th thing that the symbol has named before: S_, S0_, S1_, ... in base 36.
std::string substitution(std::size_t index) {
  if (index == 0)
    return "S_";
  std::string digits;
  for (std::size_t rest = index - 1; digits.empty() || rest > 0; rest /= 36)
    digits.insert(digits.begin(), "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"[rest % 36]);
  return "S" + digits + "_";
}

}  // namespace

std::string builtinSymbol(std::string_view qualifiedName) {
  std::string names;
  std::size_t namespaces = 0;
  for (std::size_t colons = 0; colons != std::string_view::npos;) {
    colons = qualifiedName.find("::");
    const std::string_view part = qualifiedName.substr(0, colons);
    names += std::to_string(part.size()) + std::string(part);
    if (colons != std::string_view::npos) {
      qualifiedName.remove_prefix(colons + 2);
      ++namespaces;
    }
  }
  // Each namespace is one thing named before; the array type comes next.
  const std::string array = substitution(namespaces);
  return (namespaces == 0 ? "_Z" + names : "_ZN" + names + "E") + "iPP7qxArrayiPPK" + array;
}

Builtin findBuiltin(void* library, std::string_view qualifiedName) {
  return reinterpret_cast<Builtin>(dlsym(library, builtinSymbol(qualifiedName).c_str()));
}

}  // namespace tova
