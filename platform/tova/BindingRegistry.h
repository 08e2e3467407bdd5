// Which native objects are bound to host handles.
//
// A handle is an object array (platform/array) whose native object is bound here. One native object has one binding,
// however many arrays hold its handle and however often it is announced; the binding ends when the last of them goes.
// Either side may let go first: the host by dropping its arrays, after which native shares live on; the native side by
// dropping its shares, after which the binding's own share keeps the object until the host is done, or by
// full::retract(), after which the handles that are left are invalid.
//
// Ownership: a binding holds one share of the object, unless the object was announced by reference.
// Threads:   everything may be called by any thread. An object's destructor runs on the thread that lets go last, never
//            under a lock of the registry.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <typeinfo>

#include "platform/array/qxArray.h"
#include "platform/tova/StdShareable.h"
#include "platform/tova/qxArrayProxy.h"

namespace tova {

class COSClass;

namespace factory {
namespace basic {

class Binding;

// Who keeps a bound object alive.
enum class BindingState : int {
  Shared = 0,    // the binding and somebody else
  NotHeld = 1,   // not the binding: the object is retracted, or was announced by reference
  HostOnly = 2,  // the binding alone
};

// The native object behind a handle, kept alive while this lives (if it was announced as a share).
struct PinnedNative {
  std::shared_ptr<void> share;
  full::Wrappable* object = nullptr;
};

class BindingRegistry {
 public:
  // A handle of the object, of the class that its own type is named after, or else of `className`. An object that is
  // bound already gives another share of the same handle. Without an object the handle is of `className` and invalid.
  // `NoSuchClass`, `AbstractClass`, `NotAHandleClass`.
  static qxArrayProxy announce(const std::shared_ptr<full::Wrappable>& object, std::string_view className);
  // The object stays its owner's, who retracts it before it goes.
  static qxArrayProxy announce(full::Wrappable& object, std::string_view className);

  // At the moment of asking; Shared and HostOnly may turn into each other at any time.
  static BindingState state(const Binding& binding) noexcept;
  // Ends the binding; its handles, if any are left, are invalid.
  static void remove(Binding& binding) noexcept;

  // How many objects are bound.
  static std::size_t size();

  // Says under which host class objects of exactly this type appear.
  static void nameType(const std::type_info& type, std::string className);

  // The class of a handle, even when the object is gone; null for arrays that are not handles of this class system.
  static std::shared_ptr<const COSClass> classOf(const qxArray* array);
  // `InvalidHandle` when the object is gone or the array is not a handle.
  static PinnedNative pin(const qxArray* handle);
  // True for a handle whose object is still there.
  static bool isValid(const qxArray* handle);
};

}  // namespace basic

namespace full {

// Takes the share of the object that the host's side holds out of the binding and hands it over; null if it holds none.
[[nodiscard]] std::shared_ptr<Wrappable> releaseReference(basic::Binding& binding) noexcept;

}  // namespace full
}  // namespace factory
}  // namespace tova
