#include "execution/TaskScratch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "execution/removeTree.h"
#include "platform/errors/systemError.h"
#include "platform/errors/visibleText.h"
#include "platform/logging/sinks.h"

namespace parallel::execution {

using errors::systemErrorText;
using errors::throwSystemError;
using files::UniqueFd;
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

std::string nameOf(const fs::path& path) {
  return errors::inQuotes(path.string(), path.string().size());
}

UniqueFd openOrThrow(const fs::path& path, int flags, mode_t mode = 0) {
  UniqueFd file(::open(path.c_str(), flags | O_CLOEXEC, mode));
  if (!file)
    throwSystemError("Opening " + nameOf(path));
  return file;
}

UniqueFd makeCapture(const fs::path& path) {
  return openOrThrow(path, O_RDWR | O_CREAT | O_EXCL | O_APPEND, S_IRUSR | S_IWUSR);
}

}  // namespace

TaskScratch::TaskScratch(ScratchArea& area) : area_(area), path_(area.makeDirectory()) {
  if (::mkdir(workDirectory().c_str(), S_IRWXU) == 0)
    return;
  const int error = errno;
  removeTree(path_);
  throwSystemError("Making the directory " + nameOf(workDirectory()), error);
}

TaskScratch::~TaskScratch() {
  if (const std::error_code error = removeTree(path_)) {
    FOUNDATION_LOG(area_.logger(), logging::kError)
        << "The task's directory \"" << path_.string() << "\" cannot be removed: " << error.message();
  }
}

fs::path TaskScratch::createStandardInput() const {
  openOrThrow(standardInput(), O_WRONLY | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
  return standardInput();
}

fs::path TaskScratch::createInput(const std::string& name, mode_t permissions) const {
  fs::path path = workDirectory() / name;
  const auto create = [&] {
    return UniqueFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, permissions));
  };
  UniqueFd file = create();
  if (!file && errno == ENOENT) {
    createFolder(fs::path(name).parent_path());
    file = create();
  }
  if (!file)
    throwSystemError("Making the input file " + errors::inQuotes(name));
  return path;
}

void TaskScratch::createFolder(const std::string& name) const {
  fs::path path = workDirectory();
  for (const fs::path& part : fs::path(name)) {
    path /= part;
    if (::mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST)
      throwSystemError("Making the input folder " + errors::inQuotes(name));
  }
}

TaskDescriptors TaskScratch::open(bool hasInput) const {
  TaskDescriptors opened;
  opened.directory = openOrThrow(workDirectory(), O_RDONLY | O_DIRECTORY);
  if (hasInput)
    opened.input = openOrThrow(standardInput(), O_RDONLY);
  opened.output = makeCapture(standardOutput());
  opened.error = makeCapture(standardError());
  return opened;
}

OutputStatus fileStatus(const fs::path& path) {
  OutputStatus result;
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno != ENOENT)
      result.problem = "it cannot be looked at: " + systemErrorText(errno);
    return result;
  }
  result.mode = status.st_mode;
  if (!S_ISREG(status.st_mode))
    result.problem = "it is a " + kindOfFile(status.st_mode) + ", and only regular files can be returned";
  else if (::faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0)
    result.problem = "it cannot be read: " + systemErrorText(errno);
  result.isThere = result.problem.empty();
  result.nbytes = result.isThere ? static_cast<std::uint64_t>(status.st_size) : 0;
  return result;
}

int spaceError(int fd) noexcept {
  static constexpr std::array<char, 4096> kMore{};
  struct stat before {};
  if (::fstat(fd, &before) != 0)
    return 0;
  int error = 0;
  for (std::size_t done = 0; done < kMore.size() && error == 0;) {
    const ssize_t written = ::write(fd, kMore.data() + done, kMore.size() - done);
    if (written >= 0)
      done += static_cast<std::size_t>(written);
    else if (errno != EINTR)
      error = errno;
  }
  while (::ftruncate(fd, before.st_size) != 0 && errno == EINTR) {
  }
  return error;
}

}  // namespace parallel::execution
