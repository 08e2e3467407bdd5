#include "platform/tova/BindingRegistry.h"

#include <typeindex>
#include <unordered_map>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/threads/Mutex.h"
#include "platform/tova/COSClass.h"
#include "platform/tova/handles.h"
#include "platform/tova/internal/ClassTree.h"

namespace tova::factory {
namespace basic {

class Binding {
 public:
  Binding(full::Wrappable* bound, std::shared_ptr<full::Wrappable> held, std::shared_ptr<const COSClass> itsClass)
      : key(bound), cls(std::move(itsClass)), object(bound), share(std::move(held)) {}

  const full::Wrappable* const key;
  const std::shared_ptr<const COSClass> cls;

  // Guarded by the registry's mutex.
  full::Wrappable* object;                 // null when the native side has retracted it
  std::shared_ptr<full::Wrappable> share;  // null for an object announced by reference
  std::weak_ptr<void> handle;              // what the arrays share
  bool announced = false;                  // false for one that lost a race to announce the same object
};

namespace {

struct Registry {
  parallel::threads::Mutex mutex;
  std::unordered_map<const full::Wrappable*, std::shared_ptr<Binding>> bindings ZKS_GUARDED_BY(mutex);
  std::unordered_map<std::type_index, std::string> classNames ZKS_GUARDED_BY(mutex);
};

// Never destroyed: objects may end during static destruction.
Registry& registry() {
  static Registry* const theRegistry = new Registry;
  return *theRegistry;
}

// The end of the last array that holds a handle.
struct HandleRelease {
  std::shared_ptr<Binding> binding;

  // Takes the binding along: it and the handle know each other, and neither would end otherwise.
  void operator()(full::Wrappable* /*object*/) noexcept {
    const std::shared_ptr<Binding> own = std::move(binding);
    if (wasAnnounced(*own))
      own->cls->releaseBoundObject(*own);
  }

  static bool wasAnnounced(const Binding& binding) noexcept {
    const parallel::threads::MutexLock lock(registry().mutex);
    return binding.announced;
  }
};

// The binding behind an array, whether its object is still there or not; null when the array is not a handle of this
// class system.
std::shared_ptr<Binding> bindingOf(const qxArray* array) {
  if (array == nullptr || qxGetClass(array) != qxClass::Object)
    return nullptr;
  const std::shared_ptr<void> native = qxGetNative(array);
  const auto* const release = std::get_deleter<HandleRelease>(native);
  return release ? release->binding : nullptr;
}

std::string classNameFor(const full::Wrappable* object, std::string_view otherwise) {
  if (object == nullptr)
    return std::string(otherwise);
  const parallel::threads::MutexLock lock(registry().mutex);
  const auto found = registry().classNames.find(typeid(*object));
  return found == registry().classNames.end() ? std::string(otherwise) : found->second;
}

std::shared_ptr<const COSClass> requireBindableClass(const std::string& name) {
  auto cls = internal::requireClass(name);
  if (!cls->info().isHandle())
    throw Exception<host::classes::NotAHandleClass>(name);
  if (cls->info().isAbstract())
    throw Exception<host::classes::AbstractClass>(name);
  return cls;
}

// The handle of the object's live binding, or else `fresh`, which then is its binding.
std::shared_ptr<void> bindOnce(const std::shared_ptr<Binding>& binding, const std::shared_ptr<void>& fresh,
                               std::shared_ptr<const COSClass>& cls) {
  const parallel::threads::MutexLock lock(registry().mutex);
  auto& place = registry().bindings[binding->key];
  if (place) {
    if (auto bound = place->handle.lock()) {
      cls = place->cls;
      return bound;
    }
  }
  // A binding whose last handle is just ending on another thread gives up the place; its own end does not touch ours.
  place = binding;
  binding->handle = fresh;
  binding->announced = true;
  return fresh;
}

qxArrayProxy announceAny(full::Wrappable* object, std::shared_ptr<full::Wrappable> share, std::string_view className) {
  const std::string name = classNameFor(object, className);
  std::shared_ptr<const COSClass> cls = requireBindableClass(name);
  if (object == nullptr)
    return qxArrayProxy(qxCreateObject(name, nullptr));
  const auto binding = std::make_shared<Binding>(object, std::move(share), cls);
  const std::shared_ptr<void> fresh = std::shared_ptr<full::Wrappable>(object, HandleRelease{binding});
  const std::shared_ptr<void> handle = bindOnce(binding, fresh, cls);
  return qxArrayProxy(qxCreateObject(cls->fullName(), handle));
}

// Takes the object out of the binding and the binding out of the registry; returns the share that was left in it.
std::shared_ptr<full::Wrappable> forget(Binding& binding) noexcept ZKS_REQUIRES(registry().mutex) {
  binding.object = nullptr;
  const auto found = registry().bindings.find(binding.key);
  if (found != registry().bindings.end() && found->second.get() == &binding)
    registry().bindings.erase(found);
  return std::move(binding.share);
}

}  // namespace

qxArrayProxy BindingRegistry::announce(const std::shared_ptr<full::Wrappable>& object, std::string_view className) {
  return announceAny(object.get(), object, className);
}

qxArrayProxy BindingRegistry::announce(full::Wrappable& object, std::string_view className) {
  return announceAny(&object, nullptr, className);
}

BindingState BindingRegistry::state(const Binding& binding) noexcept {
  const parallel::threads::MutexLock lock(registry().mutex);
  if (binding.share == nullptr)
    return BindingState::NotHeld;
  return binding.share.use_count() == 1 ? BindingState::HostOnly : BindingState::Shared;
}

void BindingRegistry::remove(Binding& binding) noexcept {
  std::shared_ptr<full::Wrappable> last;  // ends after the lock
  const parallel::threads::MutexLock lock(registry().mutex);
  last = forget(binding);
}

std::size_t BindingRegistry::size() {
  const parallel::threads::MutexLock lock(registry().mutex);
  return registry().bindings.size();
}

void BindingRegistry::nameType(const std::type_info& type, std::string className) {
  const parallel::threads::MutexLock lock(registry().mutex);
  registry().classNames[type] = std::move(className);
}

std::shared_ptr<const COSClass> BindingRegistry::classOf(const qxArray* array) {
  const auto binding = bindingOf(array);
  return binding ? binding->cls : nullptr;
}

PinnedNative BindingRegistry::pin(const qxArray* handle) {
  const auto binding = bindingOf(handle);
  if (!binding)
    detail::throwInvalidHandle(handle);
  const parallel::threads::MutexLock lock(registry().mutex);
  if (binding->object == nullptr)
    detail::throwInvalidHandle(handle);
  return {binding->share, binding->object};
}

bool BindingRegistry::isValid(const qxArray* handle) {
  const auto binding = bindingOf(handle);
  if (!binding)
    return false;
  const parallel::threads::MutexLock lock(registry().mutex);
  return binding->object != nullptr;
}

}  // namespace basic

namespace full {

std::shared_ptr<Wrappable> releaseReference(basic::Binding& binding) noexcept {
  const parallel::threads::MutexLock lock(basic::registry().mutex);
  return std::move(binding.share);
}

void retract(const Wrappable* object) noexcept {
  std::shared_ptr<Wrappable> last;            // ends after the lock
  std::shared_ptr<basic::Binding> withdrawn;  // so does the binding
  const parallel::threads::MutexLock lock(basic::registry().mutex);
  const auto found = basic::registry().bindings.find(object);
  if (found == basic::registry().bindings.end())
    return;
  withdrawn = found->second;
  last = basic::forget(*withdrawn);
}

}  // namespace full

namespace detail {

void throwInvalidHandle(const qxArray* array) {
  if (array == nullptr)
    throw Exception<host::classes::NotAHandle>("nothing");
  if (qxGetClass(array) != qxClass::Object)
    throw Exception<host::classes::NotAHandle>(qxClassName(qxGetClass(array)));
  throw Exception<host::classes::InvalidHandle>(qxGetObjectClassName(array));
}

}  // namespace detail
}  // namespace tova::factory
