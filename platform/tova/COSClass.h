// One registered host class: its description, its superclasses and its methods.
//
// Ownership: owns the description and the methods. Shared by its namespace, its subclasses and the handles of its
//            objects, so that a handle works on after its class was replaced or its namespace is gone.
// Threads:   filled by one thread, in the description's initializeClass; unchanging from then on.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/tova/COSClassInfo.h"
#include "platform/tova/COSString.h"
#include "platform/tova/TovaMethod.h"

namespace tova {

namespace internal {
class ClassTree;
}  // namespace internal

struct Superclass {
  std::string name;
  std::shared_ptr<const COSClass> cls;  // null when it need not exist and did not
  bool hidden = false;
  bool inheritsMethods = true;
};

enum class MethodKind { Static, Instance };

class COSClass {
 public:
  COSClass(std::string fullName, std::unique_ptr<COSClassInfo> info, const COSClient* client);
  ~COSClass();
  COSClass(const COSClass&) = delete;
  COSClass& operator=(const COSClass&) = delete;

  // --- For initializeClass ---

  // Names an earlier registered class as a superclass. With `mustExist` it is an error when there is none, otherwise
  // only the name is kept; a `hidden` one is not shown to users; with `inheritsMethods` its methods are methods of this
  // class too, after its own. `NoSuchSuperclass`, `SealedSuperclass`, `ClassComplete`.
  void addSuperclass(const COSString& fullName, bool mustExist, bool hidden, bool inheritsMethods);

  // Several methods may share a name if they differ in their number of inputs, or one is static and the other is not.
  // `MethodExists`, `BadName`, `ClassComplete`.
  void addMethod(std::unique_ptr<factory::TovaMethod> method);

  // --- What it is ---

  const std::string& fullName() const noexcept { return fullName_; }
  const COSClassInfo& info() const noexcept { return *info_; }
  const std::string& clientName() const noexcept { return clientName_; }
  // How many classes of this name were registered in the same place before this one, plus 1.
  unsigned long registration() const noexcept { return registration_; }
  const std::vector<Superclass>& superclasses() const noexcept { return superclasses_; }
  // Its own methods, in the order in which they were added.
  const std::vector<std::unique_ptr<factory::TovaMethod>>& methods() const noexcept { return methods_; }
  // Null when the host cannot create objects.
  const factory::TovaMethod* constructor() const noexcept { return constructor_.get(); }

  // True for the class itself and everything it derives from.
  bool isA(std::string_view fullName) const;

  // Own and inherited methods of a name and kind; an inherited one does not appear when one with the same number of
  // inputs stands before it.
  std::vector<const factory::TovaMethod*> methodsNamed(std::string_view name, MethodKind kind) const;
  // All that the class offers, under the same rule.
  std::vector<const factory::TovaMethod*> allMethods() const;

  // The description's answer to the end of a handle.
  void releaseBoundObject(factory::basic::Binding& binding) const noexcept { info_->releaseBoundObject(binding); }

 private:
  friend class COSNamespace;

  void initialize(const internal::ClassTree& tree, const COSClient* client);
  void complete() noexcept { tree_ = nullptr; }
  void refuseWhenComplete(std::string_view addition) const;

  std::string fullName_;
  std::unique_ptr<COSClassInfo> info_;
  std::string clientName_;
  unsigned long registration_ = 1;
  std::vector<Superclass> superclasses_;
  std::vector<std::unique_ptr<factory::TovaMethod>> methods_;
  std::unique_ptr<factory::TovaMethod> constructor_;
  const internal::ClassTree* tree_ = nullptr;  // where superclasses are looked up; set while the class is being filled
};

}  // namespace tova
