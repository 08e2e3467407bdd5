// What this process was given to run tasks with: the cores of its affinity, as many as its control groups' quota of
// processor time allows, and the memory of its control groups, else the machine's.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "platform/zksmessages/jobs.pb.h"

namespace parallel::worker {

// Where the system tells of it; another place for tests.
struct SystemFiles {
  std::filesystem::path groups = "/sys/fs/cgroup";  // the unified hierarchy
  std::filesystem::path ownGroup = "/proc/self/cgroup";
};

// Those that this process may run on.
std::vector<int> ownCores();

// At least 1 core. No named resources.
zksmessages::Resources ownResources(const SystemFiles& files = {});

// Those two, apart: `most` is what there is without groups.
std::uint32_t coresWithinQuota(const SystemFiles& files, std::uint32_t most);
std::uint64_t memoryWithinGroups(const SystemFiles& files, std::uint64_t most);

}  // namespace parallel::worker
