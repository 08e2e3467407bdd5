// Where tasks' directories are made: a directory of this service's own, gone with it.
//
// The area is a directory "zks-scratch-XXXXXX" (mode 0700) under the parent, locked (flock) while its service lives.
// One whose lock can be taken belongs to a service that died; making an area removes such leftovers of the same user.
#pragma once

#include <filesystem>

#include "platform/logging/basic_diagnostic_logger.h"
#include "scheduler/UniqueFd.h"

namespace parallel::scheduler {

// Threads: path() from any.
class ScratchArea {
 public:
  using Logger = foundation::log::basic_diagnostic_logger<char>;

  // std::system_error names the directory when it cannot be made.
  ScratchArea(const std::filesystem::path& parent, Logger& logger);
  // Removes the area with all that is in it; logs when that fails.
  ~ScratchArea();
  ScratchArea(const ScratchArea&) = delete;
  ScratchArea& operator=(const ScratchArea&) = delete;

  const std::filesystem::path& path() const noexcept { return path_; }
  Logger& logger() const noexcept { return logger_; }

 private:
  void removeStale(const std::filesystem::path& parent) const;

  Logger& logger_;
  std::filesystem::path path_;
  UniqueFd lock_;
};

}  // namespace parallel::scheduler
