// The bytes of an array that are memory of another owner.
#pragma once

#include <cstddef>
#include <functional>
#include <utility>

#include "platform/array/internal/DataStorage.h"

namespace qx_detail {

class AdoptedStorage : public DataStorage {
 public:
  // Nothing is released before setRelease.
  AdoptedStorage(void* data, std::size_t nbytes, bool writable) noexcept
      : DataStorage(data, nbytes), writable_(writable) {}
  ~AdoptedStorage() override {
    if (release_)
      release_();
  }

  void setRelease(std::function<void()> release) noexcept { release_ = std::move(release); }
  bool isWritable() const noexcept override { return writable_; }

 private:
  bool writable_;
  std::function<void()> release_;
};

}  // namespace qx_detail
