#include "tests/allocation/allocationHooks.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr int kNever = std::numeric_limits<int>::max();

std::atomic<std::size_t> requested{0};
std::atomic<int> allocationsBeforeFailure{kNever};
std::atomic<std::size_t> smallestToFail{0};

// Counts one allocation; false when it is the one that must fail.
bool mayAllocate(std::size_t nbytes) {
  requested += nbytes;
  return allocationsBeforeFailure == kNever || nbytes < smallestToFail || allocationsBeforeFailure.fetch_sub(1) != 0;
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t nbytes);
void* __real_calloc(std::size_t count, std::size_t nbytes);
void* __real_mmap(void* address, std::size_t length, int protection, int flags, int file, off_t offset);

void* __wrap_malloc(std::size_t nbytes) {
  return mayAllocate(nbytes) ? __real_malloc(nbytes) : nullptr;
}

void* __wrap_calloc(std::size_t count, std::size_t nbytes) {
  return mayAllocate(count * nbytes) ? __real_calloc(count, nbytes) : nullptr;
}

void* __wrap_mmap(void* address, std::size_t length, int protection, int flags, int file, off_t offset) {
  return mayAllocate(length) ? __real_mmap(address, length, protection, flags, file, offset) : MAP_FAILED;
}
}

void* operator new(std::size_t nbytes, const std::nothrow_t& /*tag*/) noexcept {
  return std::malloc(nbytes > 0 ? nbytes : 1);  // counted there
}

void* operator new(std::size_t nbytes) {
  void* block = operator new(nbytes, std::nothrow);
  if (block == nullptr)
    throw std::bad_alloc();
  return block;
}

void* operator new[](std::size_t nbytes, const std::nothrow_t& tag) noexcept {
  return operator new(nbytes, tag);
}
void* operator new[](std::size_t nbytes) {
  return operator new(nbytes);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete[](void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  std::free(block);
}

namespace allocation_testing {

std::size_t requestedBytes() {
  return requested;
}

FailingAllocation::FailingAllocation(int number, std::size_t nbytes) {
  smallestToFail = nbytes;
  allocationsBeforeFailure = number;
}

FailingAllocation::~FailingAllocation() {
  allocationsBeforeFailure = kNever;
}

bool FailingAllocation::happened() const {
  return allocationsBeforeFailure < 0;
}

int failEachAllocation(const std::function<void()>& body, const std::function<bool()>& unchanged) {
  for (int number = 0; number < 10'000; ++number) {
    bool threw = false;
    bool failed = false;
    {
      const FailingAllocation failing(number);
      try {
        body();
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      failed = failing.happened();
    }
    EXPECT_EQ(threw, failed) << "allocation " << number;
    if (!failed)
      return number;
    EXPECT_TRUE(unchanged()) << "allocation " << number;
  }
  ADD_FAILURE() << "the allocations do not end";
  return 0;
}

}  // namespace allocation_testing
