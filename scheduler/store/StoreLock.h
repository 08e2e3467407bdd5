// One service for each store: a lock on the file "lock" in its folder, which also says who holds it.
//
// The lock is flock()'s, which goes with its process however that ends, and which reaches other hosts where the folder is
// on a network file system that passes locks on.
// Errors: parallel::store::StoreInUse names the holder, std::system_error the file.
#pragma once

#include <filesystem>
#include <string>

#include "platform/files/UniqueFd.h"

namespace parallel::scheduler::store {

class StoreLock {
 public:
  explicit StoreLock(const std::filesystem::path& folder);

  // "process 1234 on host node7 (boot 6c2f...)": how this process names itself.
  static std::string ownName();

 private:
  files::UniqueFd file_;
};

}  // namespace parallel::scheduler::store
