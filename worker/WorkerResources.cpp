#include "worker/WorkerResources.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <optional>
#include <string>

namespace parallel::worker {

namespace fs = std::filesystem;

namespace {

// The path of the own group in the unified hierarchy: the line "0::/path".
std::optional<std::string> ownGroup(const SystemFiles& files) {
  std::ifstream lines(files.ownGroup);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("0::/"))
      return line.substr(4);
  }
  return std::nullopt;
}

// From the own group up to the root: a limit holds for all below it.
void forEachGroup(const SystemFiles& files, const std::function<void(const fs::path& group)>& visit) {
  const auto own = ownGroup(files);
  if (!own)
    return;
  visit(files.groups);
  fs::path group = files.groups;
  for (const fs::path& part : fs::path(*own)) {
    group /= part;
    visit(group);
  }
}

std::uint64_t machineMemory() {
  return static_cast<std::uint64_t>(::sysconf(_SC_PHYS_PAGES)) * static_cast<std::uint64_t>(::sysconf(_SC_PAGE_SIZE));
}

}  // namespace

std::vector<int> ownCores() {
  std::vector<int> cores;
  cpu_set_t allowed;
  if (::sched_getaffinity(0, sizeof allowed, &allowed) == 0) {
    for (int core = 0; core < CPU_SETSIZE; ++core) {
      if (CPU_ISSET(core, &allowed))
        cores.push_back(core);
    }
  }
  return cores;
}

std::uint32_t coresWithinQuota(const SystemFiles& files, std::uint32_t most) {
  std::uint32_t cores = most;
  forEachGroup(files, [&](const fs::path& group) {
    double quota = 0;  // "max 100000", or microseconds in each period
    double period = 0;
    if (std::ifstream(group / "cpu.max") >> quota >> period && period > 0)
      cores = std::min(cores, static_cast<std::uint32_t>(std::lround(std::min(quota / period, 1e6))));
  });
  return std::max(cores, 1U);
}

std::uint64_t memoryWithinGroups(const SystemFiles& files, std::uint64_t most) {
  std::uint64_t memory = most;
  forEachGroup(files, [&](const fs::path& group) {
    std::uint64_t limit = 0;
    if (std::ifstream(group / "memory.max") >> limit)
      memory = std::min(memory, limit);
  });
  return memory;
}

zksmessages::Resources ownResources(const SystemFiles& files) {
  zksmessages::Resources resources;
  resources.set_cores(
      coresWithinQuota(files, std::max<std::uint32_t>(static_cast<std::uint32_t>(ownCores().size()), 1)));
  resources.set_memory_bytes(memoryWithinGroups(files, machineMemory()));
  return resources;
}

}  // namespace parallel::worker
