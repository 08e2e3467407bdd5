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

std::atomic<utAllocator> allocatorInPlace{utAllocator{systemAllocate, systemRelease}};

}  // namespace

void* utCalloc(std::size_t count, std::size_t nbytes) {
  if (void* room = allocatorInPlace.load().allocate(count, nbytes))
    return room;
  throw Exception<host::memory::OutOfMemory, std::bad_alloc>(count * nbytes);
}

void utFree(void* room) noexcept {
  if (room != nullptr)
    allocatorInPlace.load().release(room);
}

utAllocator utSetAllocator(utAllocator allocator) noexcept {
  return allocatorInPlace.exchange(allocator);
}
