// All namespaces and classes of a process, or of one user scope.
//
// Ownership: owns its namespaces; classes are shared with their handles and subclasses.
// Threads:   any. The lock guards the namespaces' contents and the data types; it is never held while a class
//            description's code or the destructor of a class runs.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/threads/SharedMutex.h"
#include "platform/tova/COSNamespace.h"

namespace tova::internal {

class ClassTree {
 public:
  // With the platform's own classes.
  ClassTree();
  ~ClassTree();
  ClassTree(const ClassTree&) = delete;
  ClassTree& operator=(const ClassTree&) = delete;

  // Found, or made. `outer` is null for the outermost ones. `BadName`.
  COSNamespace* openNamespace(COSNamespace* outer, std::string_view name);

  // Null when there is none.
  std::shared_ptr<const COSClass> findClass(std::string_view fullName) const;

  // Full names, each before what is inside it, siblings in alphabetical order.
  std::vector<std::string> namespaceNames() const;
  // In the order of registration. `found` says whether the namespace exists.
  std::vector<std::shared_ptr<const COSClass>> classesOf(std::string_view namespaceName, bool& found) const;

  void addDataType(std::string name);
  bool hasDataType(std::string_view name) const;

  parallel::threads::SharedMutex& mutex() const noexcept ZKS_RETURN_CAPABILITY(mutex_) { return mutex_; }

 private:
  const COSNamespace* findNamespace(std::string_view fullName) const ZKS_REQUIRES_SHARED(mutex_);

  mutable parallel::threads::SharedMutex mutex_;
  std::map<std::string, std::unique_ptr<COSNamespace>, std::less<>> outermost_ ZKS_GUARDED_BY(mutex_);
  std::set<std::string, std::less<>> dataTypes_ ZKS_GUARDED_BY(mutex_);
};

// The tree that the calling thread registers in and looks up: see classMode.h.
std::shared_ptr<ClassTree> currentTree();

// The class of that name in the current tree. `NoSuchClass`.
std::shared_ptr<const COSClass> requireClass(std::string_view fullName);

}  // namespace tova::internal
