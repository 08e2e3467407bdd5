// For tests: counts what the class system allocates and frees, and can refuse one allocation.
#pragma once

#include <cstddef>

#include "platform/tova/utMemory.h"

namespace tova::testing {

// In place of the host's allocator while it lives. One at a time.
class CountingAllocator {
 public:
  CountingAllocator();
  ~CountingAllocator();
  CountingAllocator(const CountingAllocator&) = delete;
  CountingAllocator& operator=(const CountingAllocator&) = delete;

  // The n-th allocation from now on returns null, once; 0 for none.
  void failAt(long n);

  long allocations() const;
  std::size_t outstanding() const;  // allocated and not yet freed

 private:
  const utAllocator* earlier_;
};

}  // namespace tova::testing
