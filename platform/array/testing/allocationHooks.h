// Sees, and fails on demand, every allocation of the program that links it.
//
// The linker wraps malloc, calloc and mmap (see CMakeLists.txt), and operator new is replaced. For test programs only.
#pragma once

#include <cstddef>

namespace array_testing {

// All bytes asked for since the program began, whether freed since or not.
std::size_t requestedBytes();

// While it lives, the allocation of this number fails (0 is the next one), and no other.
class FailingAllocation {
 public:
  explicit FailingAllocation(int number);
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;
  ~FailingAllocation();

  // Whether there were that many.
  bool happened() const;
};

}  // namespace array_testing
