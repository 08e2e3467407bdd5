// Paths as the daemon is told them, which may be relative.
#pragma once

#include <filesystem>
#include <system_error>

#include "scheduler/daemon/DaemonError.h"

namespace parallel::scheduler {

// From the current directory; DaemonError where there is none any more.
inline std::filesystem::path absolutePath(const std::filesystem::path& path) {
  std::error_code failure;
  const auto absolute = std::filesystem::absolute(path, failure);
  if (failure)
    throw DaemonError("The current directory, from which the path \"" + path.string() +
                      "\" starts, cannot be found: " + failure.message());
  return absolute.lexically_normal();
}

}  // namespace parallel::scheduler
