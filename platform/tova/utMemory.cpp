#include "platform/tova/utMemory.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace {

void* systemAllocate(std::size_t count, std::size_t nbytes) noexcept {
  return std::calloc(count, nbytes);
}
void systemRelease(void* room) noexcept {
  std::free(room);
}

constexpr utAllocator kSystemAllocator{systemAllocate, systemRelease};

std::atomic<const utAllocator*> allocatorInPlace{&kSystemAllocator};

}  // namespace

void* utCalloc(std::size_t count, std::size_t nbytes) {
  constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max();
  const bool fits = nbytes == 0 || count <= kMost / nbytes;
  if (void* room = fits ? allocatorInPlace.load()->allocate(count, nbytes) : nullptr)
    return room;
  throw Exception<host::memory::OutOfMemory, std::bad_alloc>(fits ? count * nbytes : kMost);
}

void utFree(void* room) noexcept {
  if (room != nullptr)
    allocatorInPlace.load()->release(room);
}

const utAllocator* utSetAllocator(const utAllocator* allocator) noexcept {
  return allocatorInPlace.exchange(allocator);
}
