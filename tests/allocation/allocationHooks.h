// Sees, and fails on demand, the allocations of the program that links it, on all of its threads.
//
// The linker wraps malloc, calloc and mmap (see CMakeLists.txt), and operator new is replaced: the former as the
// program itself and the archives in it call them, the latter for the shared libraries too. For test programs only, and
// not under ThreadSanitizer, which brings an operator new of its own.
#pragma once

#include <cstddef>
#include <functional>

namespace allocation_testing {

// All bytes asked for since the program began, whether freed since or not.
std::size_t requestedBytes();

// While it lives, the allocation of this number fails (0 is the next one), and no other. Of those of at least `nbytes`:
// libraries that end the process when they get no memory ask for little at a time.
class FailingAllocation {
 public:
  explicit FailingAllocation(int number, std::size_t nbytes = 0);
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;
  ~FailingAllocation();

  // Whether there were that many.
  bool happened() const;
};

// Calls `body` with its first, second, ... allocation failing, until it runs through: each time, and then only, it has
// to throw std::bad_alloc. `unchanged` is asked after each failure. Returns how many allocations the body makes.
int failEachAllocation(
    const std::function<void()>& body, const std::function<bool()>& unchanged = [] { return true; });

}  // namespace allocation_testing
