// One share of an array value, and how the functions on arrays reach its storage.
//
// The shape belongs to the share, so that reshaping one never copies elements and never shows in another.
// Most arrays of a message or a struct are single numbers and short texts. Those lie in the share itself, which then
// has no storage: one allocation for the whole array, and a copy of the bytes is as cheap as a count.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <utility>

#include "platform/array/internal/Shape.h"
#include "platform/array/internal/Storage.h"
#include "platform/array/qxArray.h"

namespace qx_detail {
// At least one element of any class, of which a complex float64 is the largest.
constexpr std::size_t kMostBytesInShare = 32;
}  // namespace qx_detail

struct qxArray {
  qxClass cls;
  bool complex;
  qx_detail::Shape shape;
  qx_detail::StorageRef storage;  // empty when all there is lies in `bytes`
  alignas(std::max_align_t) std::array<std::byte, qx_detail::kMostBytesInShare> bytes{};
};

namespace qx_detail {

// Without a storage: of a class with data, at most kMostBytesInShare of it, all of them 0.
inline qxArrayPtr makeShare(qxClass cls, bool complex, Shape shape, std::unique_ptr<Storage> storage = nullptr) {
  return qxArrayPtr(new qxArray{cls, complex, std::move(shape), StorageRef(std::move(storage))});
}

// Read access. There must be a storage, and the class must be one whose storage is of this type.
template <class StorageType>
const StorageType& storageOf(const qxArray* array) noexcept {
  return *static_cast<const StorageType*>(array->storage.get());
}

// Write access, where there is a storage: one that no other share sees, copied if necessary.
template <class StorageType>
StorageType& uniqueStorage(qxArray* array) {
  auto* const storage = static_cast<StorageType*>(array->storage.get());
  if (storage->isUnique() && storage->isWritable())
    return *storage;
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
