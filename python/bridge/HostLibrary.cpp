#include "python/bridge/HostLibrary.h"

#include <dlfcn.h>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace zks::bridge {

namespace {

constexpr const char* kLibrary = ZKS_LIBRARY_SONAME;
constexpr const char* kLoadHook = "TSInitialize_libcvparallelspftransport";

[[noreturn]] void throwCannotLoad() {
  const char* const reason = ::dlerror();
  throw Exception<parallel::python::CannotLoad>(kLibrary, reason == nullptr ? "no reason is known" : reason);
}

void* open() {
  void* const library = ::dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr)
    throwCannotLoad();
  void* const hook = ::dlsym(library, kLoadHook);
  if (hook == nullptr)
    throwCannotLoad();
  reinterpret_cast<void (*)()>(hook)();
  return library;
}

void* library() {
  static void* const opened = open();
  return opened;
}

}  // namespace

void HostLibrary::load() {
  static_cast<void>(library());
}

tova::Builtin HostLibrary::builtin(const std::string& qualifiedName) {
  const tova::Builtin found = tova::findBuiltin(library(), qualifiedName);
  if (found == nullptr)
    throw Exception<parallel::python::NoSuchBuiltin>(qualifiedName);
  return found;
}

}  // namespace zks::bridge
