#include "platform/tova/testing/CountingAllocator.h"

#include <cstdlib>
#include <mutex>
#include <unordered_set>

namespace tova::testing {
namespace {

struct Counts {
  std::mutex mutex;
  std::unordered_set<void*> blocks;  // only those allocated since: older ones are not ours to count
  long allocations = 0;
  long countdown = 0;
};

Counts& counts() {
  static Counts* const theCounts = new Counts;
  return *theCounts;
}

void* countedAllocate(std::size_t count, std::size_t nbytes) noexcept {
  const std::lock_guard lock(counts().mutex);
  if (counts().countdown > 0 && --counts().countdown == 0)
    return nullptr;
  void* const room = std::calloc(count, nbytes);
  ++counts().allocations;
  counts().blocks.insert(room);
  return room;
}

void countedRelease(void* room) noexcept {
  {
    const std::lock_guard lock(counts().mutex);
    counts().blocks.erase(room);
  }
  std::free(room);
}

constexpr utAllocator kCountedAllocator{countedAllocate, countedRelease};

}  // namespace

CountingAllocator::CountingAllocator() : earlier_(utSetAllocator(&kCountedAllocator)) {
  const std::lock_guard lock(counts().mutex);
  counts().blocks.clear();
  counts().allocations = 0;
  counts().countdown = 0;
}

CountingAllocator::~CountingAllocator() {
  utSetAllocator(earlier_);
}

void CountingAllocator::failAt(long n) {
  const std::lock_guard lock(counts().mutex);
  counts().countdown = n;
}

long CountingAllocator::allocations() const {
  const std::lock_guard lock(counts().mutex);
  return counts().allocations;
}

std::size_t CountingAllocator::outstanding() const {
  const std::lock_guard lock(counts().mutex);
  return counts().blocks.size();
}

}  // namespace tova::testing
