#include "scheduler/removeTree.h"

namespace parallel::scheduler {

namespace fs = std::filesystem;

namespace {

// Gives us back the right to list and change every directory below.
void openUp(const fs::path& directory) {
  std::error_code ignored;
  fs::permissions(directory, fs::perms::owner_all, ignored);
  for (fs::directory_iterator entry(directory, ignored), end; !ignored && entry != end; entry.increment(ignored)) {
    std::error_code unreadable;
    if (fs::is_directory(entry->symlink_status(unreadable)))
      openUp(entry->path());
  }
}

}  // namespace

std::error_code removeTree(const fs::path& path) noexcept try {
  constexpr int kAttempts = 10;
  std::error_code error;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    error.clear();
    fs::remove_all(path, error);
    if (!error)
      return {};
    if (fs::is_directory(fs::symlink_status(path)))
      openUp(path);
  }
  return error;
} catch (const fs::filesystem_error& failure) {
  return failure.code();
} catch (...) {
  return std::make_error_code(std::errc::not_enough_memory);
}

}  // namespace parallel::scheduler
