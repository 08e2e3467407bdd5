// Where tasks' directories are made: a directory of this service's own, gone with it.
//
// The area is a directory "zks-scratch-XXXXXX" (mode 0700) under the parent, locked (flock) while its service lives.
// One whose lock can be taken belongs to a service that died; making an area removes such leftovers of the same user. If
// the directory is taken away, as cleaners of /tmp do, another one is made for the next task.
#pragma once

#include <filesystem>

#include "platform/files/UniqueFd.h"
#include "platform/logging/basic_diagnostic_logger.h"
#include "platform/threads/Mutex.h"

namespace parallel::execution {

// Threads: any.
class ScratchArea {
 public:
  using Logger = foundation::log::basic_diagnostic_logger<char>;

  // std::system_error names the directory when it cannot be made.
  ScratchArea(const std::filesystem::path& parent, Logger& logger);
  // Removes the area with all that is in it; logs when that fails.
  ~ScratchArea();
  ScratchArea(const ScratchArea&) = delete;
  ScratchArea& operator=(const ScratchArea&) = delete;

  std::filesystem::path path() const;
  // A new directory in the area, of mode 0700; its maker removes it. std::system_error when it cannot be made.
  std::filesystem::path makeDirectory();
  Logger& logger() const noexcept { return logger_; }

 private:
  void makeArea() ZKS_REQUIRES(mutex_);
  void removeStale() const ZKS_REQUIRES(mutex_);

  Logger& logger_;
  const std::filesystem::path parent_;
  mutable threads::Mutex mutex_;
  std::filesystem::path path_ ZKS_GUARDED_BY(mutex_);
  files::UniqueFd lock_ ZKS_GUARDED_BY(mutex_);
};

}  // namespace parallel::execution
