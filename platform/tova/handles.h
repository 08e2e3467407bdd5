// From native objects to host handles and back.
#pragma once

#include <memory>
#include <utility>

#include "platform/tova/BindingRegistry.h"
#include "platform/tova/HostClassName.h"

namespace tova::factory {

// A handle of the object, which shares it with the caller. Errors as BindingRegistry::announce.
template <class T>
qxArrayPtr handleOf(const std::shared_ptr<T>& object) {
  return basic::BindingRegistry::announce(object, HostClassName<T>::value).release();
}

// The native object of a handle, shared. `InvalidHandle` when the array is not a handle, its object is gone, or the
// object is not a T. For an object that was announced by reference the result does not keep it alive.
template <class T>
std::shared_ptr<T> nativeOf(const qxArray* handle);

namespace detail {
[[noreturn]] void throwInvalidHandle(const qxArray* array);
}  // namespace detail

template <class T>
std::shared_ptr<T> nativeOf(const qxArray* handle) {
  basic::PinnedNative native = basic::BindingRegistry::pin(handle);
  T* const object = dynamic_cast<T*>(native.object);
  if (object == nullptr)
    detail::throwInvalidHandle(handle);
  return {std::move(native.share), object};
}

}  // namespace tova::factory
