// The host's zero-filling allocator. What the class system frees (class descriptions, method objects) is allocated
// here.
//
// Errors:  utCalloc throws `OutOfMemory` and never returns null. utFree accepts null.
// Threads: any; a thread may free a block that another one allocated.
#pragma once

#include <cstddef>

// Room for `count` objects of `nbytes` each, aligned for any ordinary type, every byte zero.
void* utCalloc(std::size_t count, std::size_t nbytes);
void utFree(void* room) noexcept;

// The implementation of the two. `allocate` returns null when there is no room.
struct utAllocator {
  void* (*allocate)(std::size_t count, std::size_t nbytes) noexcept;
  void (*release)(void* room) noexcept;
};

// Installs another allocator and returns the earlier one. It must outlive its use. For hosts, before anything is
// allocated, and for tests. Blocks that are allocated at the time go to the new allocator's release.
const utAllocator* utSetAllocator(const utAllocator* allocator) noexcept;
