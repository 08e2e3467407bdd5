#include "worker/CoreSet.h"

#include <sched.h>

namespace parallel::worker {

void pinThisThread(const std::vector<int>& cores, const std::vector<int>& otherwise) noexcept {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (const int core : cores.empty() ? otherwise : cores)
    CPU_SET(static_cast<std::size_t>(core), &set);
  ::sched_setaffinity(0, sizeof set, &set);  // where it is refused, tasks share all cores
}

}  // namespace parallel::worker
