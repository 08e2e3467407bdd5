#include "platform/tova/COSNamespace.h"

#include <algorithm>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/threads/SharedMutex.h"
#include "platform/tova/internal/ClassTree.h"
#include "platform/tova/internal/names.h"

namespace tova {

COSNamespace::COSNamespace(internal::ClassTree& tree, std::string fullName)
    : tree_(tree), fullName_(std::move(fullName)) {}

COSNamespace::~COSNamespace() = default;

COSNamespace* COSNamespace::openInner(std::string_view name) {
  return tree_.openNamespace(this, name);
}

void COSNamespace::addClass(std::unique_ptr<COSClassInfo> info, const COSClient* client, OnDuplicate onDuplicate) {
  internal::requireIdentifier(info->name());
  std::string name = fullName_ + "." + info->name();
  const auto cls = std::make_shared<COSClass>(std::move(name), std::move(info), client);
  cls->initialize(tree_, client);
  cls->complete();
  // Whichever class is not in the tree afterwards ends here, when the lock is free again.
  const std::shared_ptr<COSClass> retired = place(cls, onDuplicate);
}

std::shared_ptr<COSClass> COSNamespace::place(std::shared_ptr<COSClass> cls, OnDuplicate onDuplicate) {
  const parallel::threads::WriterLock lock(tree_.mutex());
  const auto known = std::find_if(classes_.begin(), classes_.end(),
                                  [&](const auto& other) { return other->fullName() == cls->fullName(); });
  if (known == classes_.end()) {
    classes_.push_back(std::move(cls));
    return nullptr;
  }
  if (onDuplicate == OnDuplicate::Refuse)
    throw Exception<host::classes::ClassExists>(cls->fullName());
  if (onDuplicate == OnDuplicate::Replace) {
    cls->registration_ = (*known)->registration() + 1;
    std::swap(*known, cls);
  }
  return cls;
}

}  // namespace tova
