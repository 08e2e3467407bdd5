#include "scheduler/daemon/MemoryGuard.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <sstream>
#include <string>

#include "scheduler/daemon/allocatorTuning.h"

namespace parallel::scheduler {

namespace {

std::uint64_t pageBytes() {
  return static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

// Of the control group of this process, as a hierarchy of version 2 has it; the largest number when there is none.
std::uint64_t controlGroupLimit() {
  std::ifstream groups("/proc/self/cgroup");
  std::string line;
  while (std::getline(groups, line) && !line.starts_with("0::")) {
  }
  std::ifstream limit("/sys/fs/cgroup" + (line.size() > 3 ? line.substr(3) : "") + "/memory.max");
  std::uint64_t bytes = 0;
  return limit >> bytes ? bytes : UINT64_MAX;
}

}  // namespace

MemoryGuard::MemoryGuard(std::uint64_t limitBytes)
    : limitBytes_(limitBytes), statistics_(::open("/proc/self/statm", O_RDONLY | O_CLOEXEC)) {}

std::uint64_t MemoryGuard::residentBytes() const {
  std::array<char, 128> text{};
  if (::pread(statistics_.get(), text.data(), text.size() - 1, 0) <= 0)
    return 0;
  std::istringstream words(text.data());
  std::uint64_t mapped = 0;
  std::uint64_t resident = 0;
  words >> mapped >> resident;
  return resident * pageBytes();
}

bool MemoryGuard::wantsLess() {
  constexpr std::chrono::seconds kTimeToShow{5};
  std::uint64_t now = residentBytes();
  if (now > limitBytes_) {
    releaseKeptMemory();
    now = residentBytes();
  }
  if (now <= limitBytes_)
    return false;
  const bool growsOn = now > atLastEnd_ + limitBytes_ / 4;  // more than it takes to end a connection
  if (!growsOn && Clock::now() < lastEnd_ + kTimeToShow)
    return false;
  lastEnd_ = Clock::now();
  atLastEnd_ = now;
  return true;
}

std::uint64_t halfOfMemory() {
  const std::uint64_t machine = static_cast<std::uint64_t>(::sysconf(_SC_PHYS_PAGES)) * pageBytes();
  return std::min(machine, controlGroupLimit()) / 2;
}

}  // namespace parallel::scheduler
