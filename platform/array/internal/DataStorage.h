// The bytes of a numeric, Boolean or Text array: memory of our own, or of another owner.
//
// Own memory is aligned to kDataAlignment. From kHugeBytes on it is mapped on its own and asks for huge pages: the
// first touch of fresh 4 KiB pages costs more than copying the bytes.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "platform/array/internal/Storage.h"

namespace qx_detail {

inline constexpr std::size_t kDataAlignment = 64;
inline constexpr std::size_t kHugeBytes = std::size_t{4} << 20;

enum class Fill { Zero, Unspecified };

class DataStorage : public Storage {
 public:
  // `OutOfMemory` when there is none. No memory at all for 0 bytes.
  DataStorage(std::size_t nbytes, Fill fill);
  // Over another owner's memory. Nothing is released before setRelease.
  DataStorage(void* data, std::size_t nbytes, bool writable) noexcept;
  ~DataStorage() override;

  void setRelease(std::function<void()> release) noexcept { release_ = std::move(release); }

  std::unique_ptr<Storage> clone() const override;
  bool isWritable() const noexcept override { return writable_; }

  void* data() const noexcept { return data_; }
  std::size_t nbytes() const noexcept { return nbytes_; }

 private:
  enum class Origin { Nothing, Heap, Mapping, Adopted };

  void allocateHeap(Fill fill);
  void allocateMapping();

  void* data_ = nullptr;
  std::size_t nbytes_ = 0;
  void* block_ = nullptr;  // what the heap gave; data_ is the first aligned address in it
  Origin origin_ = Origin::Nothing;
  bool writable_ = true;
  std::function<void()> release_;
};

}  // namespace qx_detail
