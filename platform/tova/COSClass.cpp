#include "platform/tova/COSClass.h"

#include <algorithm>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/tova/COSClient.h"
#include "platform/tova/internal/ClassTree.h"
#include "platform/tova/internal/names.h"

namespace tova {

using factory::TovaMethod;

namespace {

bool haveSameCall(const TovaMethod& left, const TovaMethod& right) {
  return left.name() == right.name() && left.isStatic() == right.isStatic() &&
         left.signature().inputs.size() == right.signature().inputs.size();
}

// The class's methods in the order of search: its own, then those of each superclass in turn.
void collectMethods(const COSClass& cls, std::vector<const TovaMethod*>& found) {
  const auto isNew = [&found](const TovaMethod& method) {
    return std::none_of(found.begin(), found.end(),
                        [&](const TovaMethod* known) { return haveSameCall(*known, method); });
  };
  for (const auto& method : cls.methods()) {
    if (isNew(*method))
      found.push_back(method.get());
  }
  for (const Superclass& superclass : cls.superclasses()) {
    if (superclass.cls && superclass.inheritsMethods)
      collectMethods(*superclass.cls, found);
  }
}

}  // namespace

COSClass::COSClass(std::string fullName, std::unique_ptr<COSClassInfo> info, const COSClient* client)
    : fullName_(std::move(fullName)), info_(std::move(info)), clientName_(client ? client->name() : "") {}

COSClass::~COSClass() {
  info_->finalizeClass(this);
}

void COSClass::initialize(const internal::ClassTree& tree, const COSClient* client) {
  tree_ = &tree;
  info_->initializeClass(this, client);
  constructor_.reset(info_->createConstructor());
  if (constructor_)
    constructor_->setOwner(fullName_);
}

void COSClass::refuseWhenComplete(std::string_view addition) const {
  if (tree_ == nullptr)
    throw Exception<host::classes::ClassComplete>(fullName_, addition);
}

void COSClass::addSuperclass(const COSString& fullName, bool mustExist, bool hidden, bool inheritsMethods) {
  refuseWhenComplete(fullName.utf8());
  auto cls = tree_->findClass(fullName.utf8());
  if (!cls && mustExist)
    throw Exception<host::classes::NoSuchSuperclass>(fullName_, fullName.utf8());
  if (cls && cls->info().isSealed())
    throw Exception<host::classes::SealedSuperclass>(fullName_, fullName.utf8());
  superclasses_.push_back({fullName.utf8(), std::move(cls), hidden, inheritsMethods});
}

void COSClass::addMethod(std::unique_ptr<TovaMethod> method) {
  refuseWhenComplete(method->name());
  internal::requireIdentifier(method->name());
  const bool exists =
      std::any_of(methods_.begin(), methods_.end(), [&](const auto& known) { return haveSameCall(*known, *method); });
  if (exists)
    throw Exception<host::classes::MethodExists>(fullName_, method->name(), method->signature().inputs.size());
  method->setOwner(fullName_);
  methods_.push_back(std::move(method));
}

bool COSClass::isA(std::string_view fullName) const {
  return fullName_ == fullName ||
         std::any_of(superclasses_.begin(), superclasses_.end(), [&](const Superclass& superclass) {
           return superclass.cls ? superclass.cls->isA(fullName) : superclass.name == fullName;
         });
}

std::vector<const TovaMethod*> COSClass::allMethods() const {
  std::vector<const TovaMethod*> found;
  collectMethods(*this, found);
  return found;
}

std::vector<const TovaMethod*> COSClass::methodsNamed(std::string_view name, MethodKind kind) const {
  std::vector<const TovaMethod*> found = allMethods();
  std::erase_if(found, [&](const TovaMethod* method) {
    return method->name() != name || method->isStatic() != (kind == MethodKind::Static);
  });
  return found;
}

}  // namespace tova
