// One namespace of the host's class tree: classes, and namespaces inside it.
//
// Ownership: belongs to its tree (the process's or a user scope's), and ends with it. Pointers stay valid until then.
// Threads:   any; registrations and lookups may run at once.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/tova/COSClass.h"

namespace tova {

class COSClient;

// What to do when a class of the name is registered already.
enum class OnDuplicate : int {
  Refuse = 0,   // `ClassExists`
  Keep = 1,     // the new description is deleted
  Replace = 2,  // the new class takes the place of the old one, whose handles go on with the old
};

class COSNamespace {
 public:
  COSNamespace(internal::ClassTree& tree, std::string fullName);
  ~COSNamespace();
  COSNamespace(const COSNamespace&) = delete;
  COSNamespace& operator=(const COSNamespace&) = delete;

  const std::string& fullName() const noexcept { return fullName_; }

  // Registers a class, which takes the description over, also when this throws. The class is there for others when it
  // is complete: nobody sees one that is being filled or that failed to be. `client` says who registers (may be null).
  // What initializeClass throws passes through; `BadName`, `ClassExists`.
  void addClass(std::unique_ptr<COSClassInfo> info, const COSClient* client, OnDuplicate onDuplicate);

  // The namespace of the name inside this one, made if there is none. `BadName`.
  COSNamespace* openInner(std::string_view name);

 private:
  friend class internal::ClassTree;

  std::shared_ptr<COSClass> place(std::shared_ptr<COSClass> cls, OnDuplicate onDuplicate);

  internal::ClassTree& tree_;
  const std::string fullName_;
  // Guarded by the tree's lock.
  std::map<std::string, std::unique_ptr<COSNamespace>, std::less<>> inner_;
  std::vector<std::shared_ptr<COSClass>> classes_;
};

}  // namespace tova
