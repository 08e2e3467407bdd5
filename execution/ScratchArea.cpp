#include "execution/ScratchArea.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "execution/removeTree.h"
#include "platform/errors/systemError.h"
#include "platform/logging/sinks.h"

namespace parallel::execution {

using errors::throwSystemError;
using files::UniqueFd;
using threads::MutexLock;
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

fs::path makeUnique(const fs::path& directory, std::string_view prefix, const char* what) {
  std::string name = (directory / prefix).string() + "XXXXXX";
  if (::mkdtemp(name.data()) == nullptr)
    throwSystemError(std::string("Making a ") + what + " in \"" + directory.string() + "\"");
  return name;
}

bool isOwn(const UniqueFd& directory) {
  struct stat status {};
  return ::fstat(directory.get(), &status) == 0 && status.st_uid == ::geteuid();
}

}  // namespace

ScratchArea::ScratchArea(const fs::path& parent, Logger& logger) : logger_(logger), parent_(parent) {
  const MutexLock lock(mutex_);
  makeArea();
  removeStale();
}

ScratchArea::~ScratchArea() {
  const MutexLock lock(mutex_);
  if (!isStillAt(lock_, path_))
    return;
  if (const std::error_code error = removeTree(path_)) {
    FOUNDATION_LOG(logger_, logging::kError)
        << "The scratch directory \"" << path_.string() << "\" cannot be removed: " << error.message();
  }
}

fs::path ScratchArea::path() const {
  const MutexLock lock(mutex_);
  return path_;
}

fs::path ScratchArea::makeDirectory() {
  const MutexLock lock(mutex_);
  if (!isStillAt(lock_, path_)) {
    FOUNDATION_LOG(logger_, logging::kWarning)
        << "The scratch directory \"" << path_.string() << "\" has been taken away; another one is made";
    makeArea();
  }
  return makeUnique(path_, "task-", "task's directory");
}

// Another service that starts now may find the new directory still unlocked, and remove it: then makes another one.
void ScratchArea::makeArea() {
  for (;;) {
    path_ = makeUnique(parent_, kPrefix, "scratch directory");
    lock_ = openDirectory(path_);
    if (!lock_ && errno != ENOENT)
      throwSystemError("Opening the scratch directory \"" + path_.string() + "\"");
    if (lock_ && tryLock(lock_) && isStillAt(lock_, path_))
      return;
  }
}

void ScratchArea::removeStale() const {
  std::error_code error;
  for (fs::directory_iterator entry(parent_, error), end; !error && entry != end; entry.increment(error)) {
    const fs::path& path = entry->path();
    if (!path.filename().string().starts_with(kPrefix) || path == path_)
      continue;
    const UniqueFd directory = openDirectory(path);
    if (!directory || !isOwn(directory) || !tryLock(directory))
      continue;
    FOUNDATION_LOG(logger_, logging::kWarning)
        << "Removing the scratch directory \"" << path.string() << "\" of a service that died";
    if (const std::error_code left = removeTree(path))
      FOUNDATION_LOG(logger_, logging::kError)
          << "The scratch directory \"" << path.string() << "\" cannot be removed: " << left.message();
  }
}

}  // namespace parallel::execution
