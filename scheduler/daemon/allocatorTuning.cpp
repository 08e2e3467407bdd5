#include "scheduler/daemon/allocatorTuning.h"

#include <malloc.h>

namespace parallel::scheduler {

void keepFreedMemory() noexcept {
  constexpr int kMebibyte = 1 << 20;
  ::mallopt(M_TRIM_THRESHOLD, 1024 * kMebibyte);
  ::mallopt(M_MMAP_THRESHOLD, 32 * kMebibyte);  // the largest that is taken
  ::mallopt(M_TOP_PAD, 64 * kMebibyte);
  ::mallopt(M_ARENA_MAX, 1);
}

void releaseKeptMemory() noexcept {
  ::malloc_trim(0);
}

}  // namespace parallel::scheduler
