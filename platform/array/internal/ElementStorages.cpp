#include "platform/array/internal/ElementStorages.h"

#include <algorithm>
#include <new>

#include "platform/array/internal/share.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace qx_detail {

namespace {

// Up to here a walk over the names is as fast as hashing.
constexpr std::size_t kSearchedFields = 16;

Elements sharedElements(const Elements& elements) {
  Elements shared = unsetElements(elements.size());
  std::transform(elements.begin(), elements.end(), shared.begin(), [](const qxArrayPtr& element) {
    return element == nullptr ? qxArrayPtr() : qxCreateSharedCopy(element.get());
  });
  return shared;
}

void surrender(Elements& elements, DoomedStorages& doomed) noexcept {
  for (qxArrayPtr& element : elements) {
    if (element != nullptr)
      doomed.dropShareOf(element->storage.release());
  }
}

}  // namespace

Elements unsetElements(std::size_t count) {
  try {
    return Elements(count);
  } catch (const std::bad_alloc&) {
    throw Exception<host::memory::OutOfMemory, std::bad_alloc>(count * sizeof(qxArrayPtr));
  }
}

std::unique_ptr<Storage> ListStorage::clone() const {
  return std::make_unique<ListStorage>(sharedElements(elements_));
}

void ListStorage::surrenderElements(DoomedStorages& doomed) noexcept {
  surrender(elements_, doomed);
}

std::unique_ptr<Storage> StructStorage::clone() const {
  auto copy = std::make_unique<StructStorage>();
  for (std::size_t field = 0; field < names_.size(); ++field)
    copy->add(names_[field], sharedElements(values_[field]));
  return copy;
}

std::size_t StructStorage::find(std::string_view name) const {
  if (names_.size() > kSearchedFields) {
    const auto found = index_.find(name);
    return found == index_.end() ? kNoField : found->second;
  }
  const auto found = std::find(names_.begin(), names_.end(), name);
  return found == names_.end() ? kNoField : static_cast<std::size_t>(found - names_.begin());
}

void StructStorage::add(std::string name, Elements values) {
  values_.push_back(std::move(values));
  try {
    names_.push_back(std::move(name));
    indexNewNames();
  } catch (...) {
    names_.resize(values_.size() - 1);
    values_.pop_back();
    throw;
  }
}

void StructStorage::indexNewNames() {
  if (names_.size() <= kSearchedFields)
    return;
  for (std::size_t field = index_.size(); field < names_.size(); ++field)
    index_.emplace(names_[field], field);
}

void StructStorage::surrenderElements(DoomedStorages& doomed) noexcept {
  for (Elements& values : values_)
    surrender(values, doomed);
}

std::unique_ptr<Storage> ObjectStorage::clone() const {
  return std::make_unique<ObjectStorage>(className_, native_);
}

}  // namespace qx_detail
