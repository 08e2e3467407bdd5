// The host's zero-filling allocator. What the class system frees (class descriptions, method objects) is allocated
// here.
//
// Errors:  utCalloc throws `OutOfMemory` and never returns null. utFree accepts null.
// Threads: any; a block may be freed by another thread than the one that allocated it.
#pragma once

#include <cstddef>

// Room for `count` objects of `nbytes` each, aligned for any ordinary type, every byte zero.
void* utCalloc(std::size_t count, std::size_t nbytes);
void utFree(void* room) noexcept;

// What stands behind the two. `allocate` returns null when there is no room.
struct utAllocator {
  void* (*allocate)(std::size_t count, std::size_t nbytes) noexcept;
  void (*release)(void* room) noexcept;
};

// Puts another allocator in place and returns the earlier one. It must outlive its use. For hosts, before anything is
// allocated, and for tests; blocks that are still out then go to the new allocator's release.
const utAllocator* utSetAllocator(const utAllocator* allocator) noexcept;
