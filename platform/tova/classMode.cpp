#include "platform/tova/classMode.h"

#include <atomic>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/threads/Mutex.h"
#include "platform/tova/internal/ClassTree.h"
#include "platform/tova/omNamespaces.h"

namespace tova {
namespace {

using internal::ClassTree;

std::atomic<ClassMode> modeInForce{ClassMode::ProcessWide};

// The scope that the thread is in, or null.
thread_local std::shared_ptr<ClassTree> enteredTree;

// Never destroyed: libraries and handles may outlive static destruction.
struct ProcessTree {
  parallel::threads::Mutex mutex;
  std::shared_ptr<ClassTree> tree ZKS_GUARDED_BY(mutex);
};

ProcessTree& processTree() {
  static ProcessTree* const process = new ProcessTree;
  return *process;
}

}  // namespace

void setClassMode(ClassMode mode) noexcept {
  modeInForce = mode;
}
ClassMode classMode() noexcept {
  return modeInForce;
}

void clearProcessClasses() {
  std::shared_ptr<ClassTree> ended;
  const parallel::threads::MutexLock lock(processTree().mutex);
  ended = std::exchange(processTree().tree, nullptr);
}

UserScope::UserScope() : tree_(std::make_shared<ClassTree>()) {}
UserScope::~UserScope() = default;

UserScopeEntry::UserScopeEntry(const UserScope& scope) noexcept : outer_(std::exchange(enteredTree, scope.tree_)) {}
UserScopeEntry::~UserScopeEntry() {
  enteredTree = std::move(outer_);
}

namespace internal {

std::shared_ptr<ClassTree> currentTree() {
  if (enteredTree && classMode() == ClassMode::PerUserScope)
    return enteredTree;
  const parallel::threads::MutexLock lock(processTree().mutex);
  if (!processTree().tree)
    processTree().tree = std::make_shared<ClassTree>();
  return processTree().tree;
}

std::shared_ptr<const COSClass> requireClass(std::string_view fullName) {
  auto cls = currentTree()->findClass(fullName);
  if (!cls)
    throw Exception<host::classes::NoSuchClass>(fullName);
  return cls;
}

}  // namespace internal

COSNamespace* omGetNamespace(const char* name) {
  return internal::currentTree()->openNamespace(nullptr, name);
}

COSNamespace* omGetInnerNamespace(COSNamespace* outer, const char* name) {
  return outer->openInner(name);
}

}  // namespace tova

bool omGetTovaUsingUSM() noexcept {
  return tova::classMode() == tova::ClassMode::PerUserScope;
}
