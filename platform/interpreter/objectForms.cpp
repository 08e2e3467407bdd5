// The registry of object forms.
#include <map>
#include <utility>

#include "platform/interpreter/internal/objectForms.h"
#include "platform/threads/Mutex.h"

namespace interpreter {

namespace {

struct Registry {
  parallel::threads::Mutex mutex;
  std::map<std::string, std::shared_ptr<const ObjectForm>> forms ZKS_GUARDED_BY(mutex);
};

Registry& registry() {
  static Registry instance;
  return instance;
}

}  // namespace

void registerObjectForm(std::string className, ObjectForm form) {
  auto shared = std::make_shared<const ObjectForm>(std::move(form));
  const parallel::threads::MutexLock lock(registry().mutex);
  // The form before it, if any, leaves by `shared`: its destructor is not ours and must not run under the lock.
  registry().forms[std::move(className)].swap(shared);
}

void unregisterObjectForm(const std::string& className) {
  std::shared_ptr<const ObjectForm> removed;
  const parallel::threads::MutexLock lock(registry().mutex);
  const auto found = registry().forms.find(className);
  if (found == registry().forms.end())
    return;
  removed = std::move(found->second);
  registry().forms.erase(found);
}

std::shared_ptr<const ObjectForm> internal::findObjectForm(const std::string& className) {
  const parallel::threads::MutexLock lock(registry().mutex);
  const auto found = registry().forms.find(className);
  return found == registry().forms.end() ? nullptr : found->second;
}

}  // namespace interpreter
