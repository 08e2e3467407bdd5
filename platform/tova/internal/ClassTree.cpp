#include "platform/tova/internal/ClassTree.h"

#include <algorithm>
#include <utility>

#include "platform/threads/SharedMutex.h"
#include "platform/tova/internal/Heterogeneous.h"
#include "platform/tova/internal/names.h"

namespace tova::internal {

ClassTree::ClassTree() {
  addHeterogeneous(openNamespace(openNamespace(nullptr, "tessel"), "mixin"));
  dataTypes_ = {"any", "void"};
}

ClassTree::~ClassTree() = default;

COSNamespace* ClassTree::openNamespace(COSNamespace* outer, std::string_view name) {
  requireIdentifier(name);
  const parallel::threads::WriterLock lock(mutex_);
  auto& siblings = outer ? outer->inner_ : outermost_;
  auto& place = siblings[std::string(name)];
  if (!place)
    place =
        std::make_unique<COSNamespace>(*this, outer ? outer->fullName() + "." + std::string(name) : std::string(name));
  return place.get();
}

const COSNamespace* ClassTree::findNamespace(std::string_view fullName) const {
  const auto* siblings = &outermost_;
  const COSNamespace* found = nullptr;
  while (true) {
    const std::size_t dot = fullName.find('.');
    const auto next = siblings->find(fullName.substr(0, dot));
    if (next == siblings->end())
      return nullptr;
    found = next->second.get();
    if (dot == std::string_view::npos)
      return found;
    siblings = &found->inner_;
    fullName.remove_prefix(dot + 1);
  }
}

std::shared_ptr<const COSClass> ClassTree::findClass(std::string_view fullName) const {
  const std::size_t dot = fullName.rfind('.');
  if (dot == std::string_view::npos)
    return nullptr;
  const parallel::threads::ReaderLock lock(mutex_);
  const COSNamespace* const home = findNamespace(fullName.substr(0, dot));
  if (home == nullptr)
    return nullptr;
  const auto found = std::find_if(home->classes_.begin(), home->classes_.end(),
                                  [&](const auto& cls) { return cls->fullName() == fullName; });
  return found == home->classes_.end() ? nullptr : *found;
}

std::vector<std::string> ClassTree::namespaceNames() const {
  std::vector<std::string> names;
  const auto visit = [&names](const auto& self, const auto& siblings) -> void {
    for (const auto& [name, inner] : siblings) {
      names.push_back(inner->fullName());
      self(self, inner->inner_);
    }
  };
  const parallel::threads::ReaderLock lock(mutex_);
  visit(visit, outermost_);
  return names;
}

std::vector<std::shared_ptr<const COSClass>> ClassTree::classesOf(std::string_view namespaceName, bool& found) const {
  const parallel::threads::ReaderLock lock(mutex_);
  const COSNamespace* const home = findNamespace(namespaceName);
  found = home != nullptr;
  if (!found)
    return {};
  return {home->classes_.begin(), home->classes_.end()};
}

void ClassTree::addDataType(std::string name) {
  const parallel::threads::WriterLock lock(mutex_);
  dataTypes_.insert(std::move(name));
}

bool ClassTree::hasDataType(std::string_view name) const {
  const parallel::threads::ReaderLock lock(mutex_);
  return dataTypes_.contains(name);
}

}  // namespace tova::internal
