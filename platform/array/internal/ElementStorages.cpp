#include "platform/array/internal/ElementStorages.h"

#include <algorithm>
#include <new>

#include "platform/array/internal/share.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace qx_detail {

namespace {

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

// Of all fields together. For more than there can be, the most there can be, for which there is no memory either.
std::size_t valueCount(std::size_t elements, std::size_t fields) {
  const std::size_t most = Elements().max_size();
  std::size_t count = 0;
  return __builtin_mul_overflow(elements, fields, &count) ? most : std::min(count, most);
}

[[noreturn]] void throwNoMemoryForElements(std::size_t elements) {
  throw Exception<host::memory::OutOfMemory, std::bad_alloc>(elements * sizeof(qxArrayPtr));
}

// Adds unset elements.
void growBy(Elements& elements, std::size_t count) {
  try {
    elements.resize(elements.size() + count);
  } catch (const std::bad_alloc&) {
    throwNoMemoryForElements(count);
  }
}

}  // namespace

Elements unsetElements(std::size_t count) {
  try {
    return Elements(count);
  } catch (const std::bad_alloc&) {
    throwNoMemoryForElements(count);
  }
}

std::unique_ptr<Storage> ListStorage::clone() const {
  return std::make_unique<ListStorage>(sharedElements(elements_));
}

void ListStorage::surrenderElements(DoomedStorages& doomed) noexcept {
  surrender(elements_, doomed);
}

StructStorage::StructStorage(std::size_t count, std::shared_ptr<const qxFieldNames> names)
    : count_(count), names_(std::move(names)), values_(unsetElements(valueCount(count_, names_->size()))) {}

// Names of its own stay its own: other threads may use this storage, so it cannot be noted here that they are shared.
std::unique_ptr<Storage> StructStorage::clone() const {
  auto copy = std::make_unique<StructStorage>(0, names_);
  if (ownNames_ != nullptr)
    copy->makeNamesOwn();
  copy->count_ = count_;
  copy->values_ = sharedElements(values_);
  return copy;
}

void StructStorage::makeNamesOwn() {
  auto own = std::make_shared<qxFieldNames>(*names_);
  ownNames_ = own.get();
  names_ = std::move(own);
}

void StructStorage::add(std::string name) {
  if (ownNames_ == nullptr)
    makeNamesOwn();
  const std::size_t before = values_.size();
  growBy(values_, count_);
  try {
    ownNames_->add(std::move(name));
  } catch (...) {
    values_.resize(before);
    throw;
  }
}

void StructStorage::surrenderElements(DoomedStorages& doomed) noexcept {
  surrender(values_, doomed);
}

std::unique_ptr<Storage> ObjectStorage::clone() const {
  return std::make_unique<ObjectStorage>(className_, native_);
}

}  // namespace qx_detail
