// One share of an array value, and how the functions on arrays reach its storage.
//
// The shape belongs to the share, so that reshaping one never copies elements and never shows in another.
#pragma once

#include <memory>
#include <utility>

#include "platform/array/internal/Shape.h"
#include "platform/array/internal/Storage.h"
#include "platform/array/qxArray.h"

struct qxArray {
  qxClass cls;
  bool complex;
  qx_detail::Shape shape;
  qx_detail::StorageRef storage;
};

namespace qx_detail {

qxArrayPtr makeShare(qxClass cls, bool complex, Shape shape, std::unique_ptr<Storage> storage);

// Read access. The class must be one whose storage is of this type.
template <class StorageType>
const StorageType& storageOf(const qxArray* array) noexcept {
  return *static_cast<const StorageType*>(array->storage.get());
}

// Write access: a storage that no other share sees, copied if need be.
template <class StorageType>
StorageType& uniqueStorage(qxArray* array) {
  if (!array->storage.get()->isUnique() || !array->storage.get()->isWritable()) {
    array->storage = StorageRef(array->storage.get()->clone());
  }
  return *static_cast<StorageType*>(array->storage.get());
}

bool hasData(qxClass cls) noexcept;  // numeric, Boolean, Text
bool isNumeric(qxClass cls) noexcept;

[[noreturn]] void throwWrongClass(const qxArray* array, std::string_view wanted);
void checkClass(const qxArray* array, qxClass wanted);
void checkIndex(std::size_t index, std::size_t count);

}  // namespace qx_detail
