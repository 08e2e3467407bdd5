// The folders in which a group of writes has made or renamed files. They are synced once, before the commit that names
// the files.
#pragma once

#include <filesystem>
#include <set>

#include "scheduler/store/Files.h"

namespace parallel::scheduler::store {

// Threads: one at a time.
class SyncedFolders {
 public:
  explicit SyncedFolders(Files& files) : files_(files) {}

  void add(const std::filesystem::path& folder) { folders_.insert(folder); }
  void sync() {
    for (const std::filesystem::path& folder : folders_)
      files_.syncFolder(folder);
    folders_.clear();
  }
  void clear() { folders_.clear(); }

 private:
  Files& files_;
  std::set<std::filesystem::path> folders_;
};

}  // namespace parallel::scheduler::store
