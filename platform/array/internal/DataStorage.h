// The bytes of a numeric, Boolean or Text array.
//
// A few bytes lie behind the body, in the same allocation. More of them are aligned to kDataAlignment. From kHugeBytes
// on they are mapped on their own and ask for huge pages: the first touch of fresh 4 KiB pages costs more than copying
// the bytes.
#pragma once

#include <cstddef>
#include <memory>
#include <new>

#include "platform/array/internal/Storage.h"

namespace qx_detail {

inline constexpr std::size_t kMostBytesBehind = 256;
inline constexpr std::size_t kDataAlignment = 64;
inline constexpr std::size_t kHugeBytes = std::size_t{4} << 20;

enum class Fill { Zero, Unspecified };

class DataStorage : public Storage {
 public:
  // `OutOfMemory` when there is none. No memory for data of 0 bytes.
  static std::unique_ptr<DataStorage> create(std::size_t nbytes, Fill fill);
  ~DataStorage() override;

  std::unique_ptr<Storage> clone() const override;

  void* data() const noexcept { return data_; }
  std::size_t nbytes() const noexcept { return nbytes_; }

  // Storage is deleted through its base, without knowing how much lies behind it.
  static void* operator new(std::size_t nbytes) { return ::operator new(nbytes); }
  static void* operator new(std::size_t nbytes, std::size_t behind) { return ::operator new(nbytes + behind); }
  static void operator delete(void* storage) noexcept { ::operator delete(storage); }
  static void operator delete(void* storage, std::size_t /*behind*/) noexcept { ::operator delete(storage); }

 protected:
  // Over another owner's memory.
  DataStorage(void* data, std::size_t nbytes) noexcept : data_(data), nbytes_(nbytes) {}

 private:
  enum class Origin { Elsewhere, Behind, Heap, Mapping };

  DataStorage(std::size_t nbytes, Origin origin) noexcept : nbytes_(nbytes), origin_(origin) {}

  void allocateHeap(Fill fill);
  void allocateMapping();

  void* data_ = nullptr;
  std::size_t nbytes_ = 0;
  void* block_ = nullptr;  // what the heap gave; data_ is the first aligned address in it
  Origin origin_ = Origin::Elsewhere;
};

}  // namespace qx_detail
