// One share of an array value, and how the functions on arrays reach its storage.
//
// The shape belongs to the share, so that reshaping one never copies elements and never shows in another.
// Most arrays of a message or a struct are single numbers. A single element lies in the share itself, which then has no
// storage: one allocation for the whole array, and a copy of the element is as cheap as a count.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <utility>

#include "platform/array/internal/Shape.h"
#include "platform/array/internal/Storage.h"
#include "platform/array/qxArray.h"

namespace qx_detail {
constexpr std::size_t kElementBytes = 16;  // of the largest element: a complex float64
}

struct qxArray {
  qxClass cls;
  bool complex;
  qx_detail::Shape shape;
  qx_detail::StorageRef storage;  // empty when all there is lies in `element`
  alignas(std::max_align_t) std::array<std::byte, qx_detail::kElementBytes> element{};
};

namespace qx_detail {

// Without a storage: of a class with data, at most one element, all bytes 0.
qxArrayPtr makeShare(qxClass cls, bool complex, Shape shape, std::unique_ptr<Storage> storage = nullptr);

// Read access. There must be a storage, and the class must be one whose storage is of this type.
template <class StorageType>
const StorageType& storageOf(const qxArray* array) noexcept {
  return *static_cast<const StorageType*>(array->storage.get());
}

// Write access, where there is a storage: one that no other share sees, copied if need be.
template <class StorageType>
StorageType& uniqueStorage(qxArray* array) {
  Storage* const storage = array->storage.get();
  if (!storage->isUnique() || !storage->isWritable())
    array->storage = StorageRef(storage->clone());
  return *static_cast<StorageType*>(array->storage.get());
}

inline bool isNumeric(qxClass cls) noexcept {
  return cls <= qxClass::Uint64;
}

// Numeric, Boolean, Text.
inline bool hasData(qxClass cls) noexcept {
  return cls <= qxClass::Text;
}

[[noreturn]] void throwWrongClass(const qxArray* array, std::string_view wanted);
[[noreturn]] void throwIndexOutOfRange(std::size_t index, std::size_t count);

inline void checkClass(const qxArray* array, qxClass wanted) {
  if (array->cls != wanted)
    throwWrongClass(array, qxClassName(wanted));
}

inline void checkIndex(std::size_t index, std::size_t count) {
  if (index >= count)
    throwIndexOutOfRange(index, count);
}

}  // namespace qx_detail
