#include "scheduler/ScratchArea.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/logging/sinks.h"
#include "scheduler/removeTree.h"
#include "scheduler/systemError.h"

namespace parallel::scheduler {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kPrefix = "zks-scratch-";

UniqueFd openDirectory(const fs::path& path) {
  return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool tryLock(const UniqueFd& directory) {
  return ::flock(directory.get(), LOCK_EX | LOCK_NB) == 0;
}

// Whether the path still leads to the directory that is open.
bool isStillAt(const UniqueFd& directory, const fs::path& path) {
  struct stat opened {};
  struct stat named {};
  return ::fstat(directory.get(), &opened) == 0 && ::lstat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

fs::path makeDirectory(const fs::path& parent) {
  std::string name = (parent / kPrefix).string() + "XXXXXX";
  if (::mkdtemp(name.data()) == nullptr)
    throwSystemError("Making a scratch directory in \"" + parent.string() + "\"");
  return name;
}

bool isOwn(const UniqueFd& directory) {
  struct stat status {};
  return ::fstat(directory.get(), &status) == 0 && status.st_uid == ::geteuid();
}

}  // namespace

ScratchArea::ScratchArea(const fs::path& parent, Logger& logger) : logger_(logger) {
  // Another service that starts now may find the new directory still unlocked, and remove it: then make another one.
  for (;;) {
    path_ = makeDirectory(parent);
    lock_ = openDirectory(path_);
    if (!lock_ && errno != ENOENT)
      throwSystemError("Opening the scratch directory \"" + path_.string() + "\"");
    if (lock_ && tryLock(lock_) && isStillAt(lock_, path_))
      break;
  }
  removeStale(parent);
}

ScratchArea::~ScratchArea() {
  if (const std::error_code error = removeTree(path_)) {
    FOUNDATION_LOG(logger_, logging::kError)
        << "The scratch directory \"" << path_.string() << "\" cannot be removed: " << error.message();
  }
}

void ScratchArea::removeStale(const fs::path& parent) const {
  std::error_code error;
  for (fs::directory_iterator entry(parent, error), end; !error && entry != end; entry.increment(error)) {
    const fs::path& path = entry->path();
    if (!path.filename().string().starts_with(kPrefix) || path == path_)
      continue;
    const UniqueFd directory = openDirectory(path);
    if (!directory || !isOwn(directory) || !tryLock(directory))
      continue;
    FOUNDATION_LOG(logger_, logging::kWarning)
        << "Removing the scratch directory \"" << path.string() << "\" of a service that died";
    removeTree(path);
  }
}

}  // namespace parallel::scheduler
