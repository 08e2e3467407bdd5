#include "platform/tova/utMemory.h"

#include <atomic>
#include <cstdlib>
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
  if (void* room = allocatorInPlace.load()->allocate(count, nbytes))
    return room;
  throw Exception<host::memory::OutOfMemory, std::bad_alloc>(count * nbytes);
}

void utFree(void* room) noexcept {
  if (room != nullptr)
    allocatorInPlace.load()->release(room);
}

const utAllocator* utSetAllocator(const utAllocator* allocator) noexcept {
  return allocatorInPlace.exchange(allocator);
}
