// How the class system passes host arrays: an owning proxy and a read-only borrowed one.
#pragma once

#include <utility>

#include "platform/array/qxArray.h"

namespace tova::factory {

// Owns one share of a host array, or holds none (an empty proxy). Moves, and copies by taking another share.
class qxArrayProxy {
 public:
  qxArrayProxy() noexcept = default;
  explicit qxArrayProxy(qxArray* owned) noexcept : array_(owned) {}
  explicit qxArrayProxy(qxArrayPtr owned) noexcept : array_(std::move(owned)) {}
  qxArrayProxy(const qxArrayProxy& other) : array_(other ? qxCreateSharedCopy(other.get()) : nullptr) {}
  qxArrayProxy(qxArrayProxy&&) noexcept = default;
  qxArrayProxy& operator=(qxArrayProxy other) noexcept {
    array_ = std::move(other.array_);
    return *this;
  }
  ~qxArrayProxy() = default;

  explicit operator bool() const noexcept { return array_ != nullptr; }
  const qxArray* get() const noexcept { return array_.get(); }
  qxArray* getWritable() noexcept { return array_.get(); }
  qxArrayPtr release() noexcept { return std::move(array_); }

 private:
  qxArrayPtr array_;
};

// Borrows a host array for the length of a call.
class qxConstArrayProxy {
 public:
  qxConstArrayProxy(const qxArray* borrowed) noexcept : array_(borrowed) {}       // NOLINT: implicit, as a view is
  qxConstArrayProxy(const qxArrayProxy& proxy) noexcept : array_(proxy.get()) {}  // NOLINT
  qxConstArrayProxy(const qxArrayPtr& owner) noexcept : array_(owner.get()) {}    // NOLINT

  const qxArray* get() const noexcept { return array_; }

 private:
  const qxArray* array_;
};

}  // namespace tova::factory
