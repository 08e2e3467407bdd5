#include "platform/array/internal/DataStorage.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace qx_detail {

namespace {

constexpr std::size_t kHugePage = std::size_t{2} << 20;

std::size_t roundUp(std::size_t value, std::size_t unit) {
  return (value + unit - 1) / unit * unit;
}

// The first address at or after `address` that is a multiple of `alignment`.
void* alignUp(void* address, std::size_t alignment) {
  const auto number = reinterpret_cast<std::uintptr_t>(address);
  return static_cast<char*>(address) + (roundUp(number, alignment) - number);
}

[[noreturn]] void throwOutOfMemory(std::size_t nbytes) {
  throw Exception<host::memory::OutOfMemory, std::bad_alloc>(nbytes);
}

// Bytes that a mapping of `nbytes` takes.
std::size_t mappedBytes(std::size_t nbytes) {
  return roundUp(nbytes, kHugePage);
}

// Zero pages that begin on a huge-page border, or null.
void* mapOnHugePageBorder(std::size_t length) {
  const std::size_t spare = kHugePage;
  void* start = mmap(nullptr, length + spare, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (start == MAP_FAILED)
    return nullptr;
  char* data = static_cast<char*>(alignUp(start, kHugePage));
  const std::size_t before = static_cast<std::size_t>(data - static_cast<char*>(start));
  if (before > 0)
    munmap(start, before);
  if (before < spare)
    munmap(data + length, spare - before);
  madvise(data, length, MADV_HUGEPAGE);  // advice only: without huge pages the mapping is as good
  return data;
}

}  // namespace

std::unique_ptr<DataStorage> DataStorage::create(std::size_t nbytes, Fill fill) {
  if (nbytes <= kMostBytesBehind) {
    std::unique_ptr<DataStorage> small(new (nbytes) DataStorage(nbytes, Origin::Behind));
    small->data_ = nbytes > 0 ? small.get() + 1 : nullptr;
    if (fill == Fill::Zero && nbytes > 0)
      std::memset(small->data_, 0, nbytes);
    return small;
  }
  std::unique_ptr<DataStorage> storage(new DataStorage(nbytes, Origin::Elsewhere));
  if (nbytes >= kHugeBytes) {
    storage->allocateMapping();
  } else {
    storage->allocateHeap(fill);
  }
  return storage;
}

void DataStorage::allocateHeap(Fill fill) {
  const std::size_t length = nbytes_ + kDataAlignment - 1;
  block_ = fill == Fill::Zero ? std::calloc(length, 1) : std::malloc(length);
  if (block_ == nullptr)
    throwOutOfMemory(nbytes_);
  data_ = alignUp(block_, kDataAlignment);
  origin_ = Origin::Heap;
}

void DataStorage::allocateMapping() {
  data_ = mapOnHugePageBorder(mappedBytes(nbytes_));
  if (data_ == nullptr)
    throwOutOfMemory(nbytes_);
  origin_ = Origin::Mapping;
}

DataStorage::~DataStorage() {
  if (origin_ == Origin::Heap)
    std::free(block_);
  if (origin_ == Origin::Mapping)
    munmap(data_, mappedBytes(nbytes_));
}

std::unique_ptr<Storage> DataStorage::clone() const {
  auto copy = create(nbytes_, Fill::Unspecified);
  if (nbytes_ > 0)
    std::memcpy(copy->data_, data_, nbytes_);
  return copy;
}

}  // namespace qx_detail
