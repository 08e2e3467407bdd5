#include "platform/tova/testing/CountingAllocator.h"

#include <cstdlib>
#include <unordered_set>

#include "platform/threads/Mutex.h"

namespace tova::testing {
namespace {

struct Counts {
  parallel::threads::Mutex mutex;
  // Only those allocated since: older ones are not ours to count.
  std::unordered_set<void*> blocks ZKS_GUARDED_BY(mutex);
  long allocations ZKS_GUARDED_BY(mutex) = 0;
  long countdown ZKS_GUARDED_BY(mutex) = 0;
};

Counts& counts() {
  static Counts* const theCounts = new Counts;
  return *theCounts;
}

void* countedAllocate(std::size_t count, std::size_t nbytes) noexcept {
  const parallel::threads::MutexLock lock(counts().mutex);
  if (counts().countdown > 0 && --counts().countdown == 0)
    return nullptr;
  void* const room = std::calloc(count, nbytes);
  ++counts().allocations;
  counts().blocks.insert(room);
  return room;
}

void countedRelease(void* room) noexcept {
  {
    const parallel::threads::MutexLock lock(counts().mutex);
    counts().blocks.erase(room);
  }
  std::free(room);
}

constexpr utAllocator kCountedAllocator{countedAllocate, countedRelease};

}  // namespace

CountingAllocator::CountingAllocator() : earlier_(utSetAllocator(&kCountedAllocator)) {
  const parallel::threads::MutexLock lock(counts().mutex);
  counts().blocks.clear();
  counts().allocations = 0;
  counts().countdown = 0;
}

CountingAllocator::~CountingAllocator() {
  utSetAllocator(earlier_);
}

void CountingAllocator::failAt(long n) {
  const parallel::threads::MutexLock lock(counts().mutex);
  counts().countdown = n;
}

long CountingAllocator::allocations() const {
  const parallel::threads::MutexLock lock(counts().mutex);
  return counts().allocations;
}

std::size_t CountingAllocator::outstanding() const {
  const parallel::threads::MutexLock lock(counts().mutex);
  return counts().blocks.size();
}

}  // namespace tova::testing
