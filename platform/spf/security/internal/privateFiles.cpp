#include "platform/spf/security/internal/privateFiles.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/errors/systemError.h"
#include "platform/spf/core/errors.h"

namespace agent::spf::security::internal {

using files::UniqueFd;
namespace fs = std::filesystem;

namespace {

constexpr mode_t kOthers = S_IRWXG | S_IRWXO;
constexpr std::size_t kLongestFile = std::size_t{1} << 20;
constexpr const char* kNewMark = ".new-";

[[noreturn]] void refuse(const char* what, const fs::path& path, const std::string& problem) {
  throw FrameworkError(std::string("The ") + what + " \"" + path.string() + "\" " + problem + ".");
}

std::string because(int error) {
  return ": " + errors::systemErrorText(error);
}

std::string octal(mode_t mode) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode & 07777));
  return text.data();
}

void requireOwner(const char* what, const fs::path& path, const struct stat& status) {
  if (status.st_uid != ::geteuid() && status.st_uid != 0)
    refuse(what, path,
           "belongs to user " + std::to_string(status.st_uid) + "; have it belong to user " +
               std::to_string(::geteuid()) + ", or take a copy of one's own");
}

void requirePrivate(const char* what, const char* wanted, const fs::path& path, const struct stat& status) {
  requireOwner(what, path, status);
  if ((status.st_mode & kOthers) != 0)
    refuse(what, path,
           "is open to others (mode " + octal(status.st_mode) + "); run chmod " + wanted + " " + path.string());
}

void noteStep(const std::function<void()>& onStep) {
  if (onStep)
    onStep();
}

void syncDirectory(const fs::path& directory) {
  const UniqueFd opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (opened)
    ::fsync(opened.get());
}

bool writeAll(int fd, const std::string& content) {
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t part = ::write(fd, content.data() + done, content.size() - done);
    if (part < 0 && errno != EINTR)
      return false;
    done += part > 0 ? static_cast<std::size_t>(part) : 0;
  }
  return true;
}

}  // namespace

std::optional<std::string> readFile(const fs::path& path, Openness openness) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file && errno == ENOENT)
    return std::nullopt;
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0)
    refuse("file", path, "cannot be read" + because(errno));
  if (!S_ISREG(status.st_mode))
    refuse("file", path, "is not a regular file");
  if (openness == Openness::ownerOnly)
    requirePrivate("file", "600", path, status);
  std::string content(kLongestFile, '\0');
  std::size_t size = 0;
  while (size < content.size()) {
    const ssize_t part = ::read(file.get(), content.data() + size, content.size() - size);
    if (part < 0 && errno == EINTR)
      continue;
    if (part < 0)
      refuse("file", path, "cannot be read" + because(errno));
    if (part == 0)
      break;
    size += static_cast<std::size_t>(part);
  }
  content.resize(size);
  return content;
}

void writeFile(const fs::path& path, const std::string& content, Openness openness,
               const std::function<void()>& onStep) {
  std::string name = path.string() + kNewMark + "XXXXXX";
  const UniqueFd file(::mkostemp(name.data(), O_CLOEXEC));  // with mode 0600
  if (!file)
    refuse("file", path, "cannot be made" + because(errno));
  noteStep(onStep);
  const mode_t mode = openness == Openness::ownerOnly ? S_IRUSR | S_IWUSR : S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
  if (!writeAll(file.get(), content) || ::fchmod(file.get(), mode) != 0 || ::fsync(file.get()) != 0) {
    const int error = errno;
    ::unlink(name.c_str());
    refuse("file", path, "cannot be written" + because(error));
  }
  noteStep(onStep);
  if (::rename(name.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::unlink(name.c_str());
    refuse("file", path, "cannot be put in its place" + because(error));
  }
  syncDirectory(path.parent_path());
  noteStep(onStep);
}

void requirePrivateDirectory(const fs::path& directory) {
  struct stat status {};
  if (::stat(directory.c_str(), &status) != 0)
    refuse("directory", directory, "cannot be used" + because(errno));
  if (!S_ISDIR(status.st_mode))
    refuse("directory", directory, "is not a directory");
  requirePrivate("directory", "700", directory, status);
}

void makePrivateDirectory(const fs::path& directory, const std::function<void()>& onStep) {
  if (directory.has_parent_path() && directory.parent_path() != directory && !fs::exists(directory.parent_path()))
    makePrivateDirectory(directory.parent_path(), onStep);
  if (::mkdir(directory.c_str(), S_IRWXU) == 0)
    return noteStep(onStep);
  if (errno != EEXIST)
    refuse("directory", directory, "cannot be made" + because(errno));
}

bool isLeftOver(const fs::path& path) {
  return path.filename().string().find(kNewMark) != std::string::npos;
}

DirectoryLock::DirectoryLock(const fs::path& directory)
    : file_(::open((directory / kName).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR)) {
  int locked = -1;
  do {
    locked = file_ ? ::flock(file_.get(), LOCK_EX) : -1;
  } while (file_ && locked != 0 && errno == EINTR);
  if (locked != 0)
    refuse("directory", directory, "cannot be locked" + because(errno));
}

}  // namespace agent::spf::security::internal
