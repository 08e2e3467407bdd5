#include "scheduler/TaskScratch.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/logging/sinks.h"
#include "scheduler/removeTree.h"
#include "scheduler/systemError.h"

namespace parallel::scheduler {

namespace fs = std::filesystem;

namespace {

std::string kindOfFile(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFDIR:
      return "directory";
    case S_IFLNK:
      return "symbolic link";
    case S_IFIFO:
      return "named pipe";
    case S_IFSOCK:
      return "socket";
    default:
      return "device";
  }
}

std::string outputName(const std::string& name) {
  return "the output file \"" + name + "\"";
}

void requireRegular(const struct stat& status, const std::string& name) {
  if (!S_ISREG(status.st_mode))
    throw Exception<parallel::scheduler::OutputNotAFile>(name, kindOfFile(status.st_mode));
}

fs::path makeTaskDirectory(const fs::path& area) {
  std::string name = (area / "task-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr)
    throwSystemError("Making a task's directory in \"" + area.string() + "\"");
  return name;
}

UniqueFd makeWorkDirectory(const fs::path& path) {
  UniqueFd directory;
  if (::mkdir(path.c_str(), S_IRWXU) == 0)
    directory = UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory)
    throwSystemError("Making the directory \"" + path.string() + "\"");
  return directory;
}

UniqueFd makeCapture(const fs::path& path) {
  UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file)
    throwSystemError("Making the file \"" + path.string() + "\"");
  return file;
}

}  // namespace

TaskScratch::TaskScratch(ScratchArea& area) : area_(area), path_(makeTaskDirectory(area.path())) {
  try {
    work_ = makeWorkDirectory(path_ / "work");
    output_ = makeCapture(path_ / "stdout");
    error_ = makeCapture(path_ / "stderr");
  } catch (...) {
    removeTree(path_);
    throw;
  }
}

TaskScratch::~TaskScratch() {
  if (const std::error_code error = removeTree(path_)) {
    FOUNDATION_LOG(area_.logger(), logging::kError)
        << "The task's directory \"" << path_.string() << "\" cannot be removed: " << error.message();
  }
}

UniqueFd TaskScratch::createInput(const std::string& name) {
  UniqueFd file(::openat(work_.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRWXU));
  if (!file)
    throwSystemError("Making the input file \"" + name + "\"");
  return file;
}

TaskScratch::OutputStatus TaskScratch::outputStatus(const std::string& name) const {
  struct stat status {};
  if (::fstatat(work_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT)
      return {};
    throwSystemError("Looking at " + outputName(name));
  }
  requireRegular(status, name);
  return {true, static_cast<std::uint64_t>(status.st_size)};
}

UniqueFd TaskScratch::openOutput(const std::string& name) const {
  // Not blocking: what was a file a moment ago may be a pipe by now.
  UniqueFd file(::openat(work_.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0)
    throwSystemError("Opening " + outputName(name));
  requireRegular(status, name);
  return file;
}

std::uint64_t fileBytes(int fd, const std::string& what) {
  struct stat status {};
  if (::fstat(fd, &status) != 0)
    throwSystemError("Looking at " + what);
  return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace parallel::scheduler
