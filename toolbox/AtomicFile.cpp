#include "toolbox/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <random>
#include <set>
#include <system_error>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/interrupt/utInterruptState.h"

namespace parallel::toolbox {
namespace {

struct Registry {
  std::mutex mutex;
  std::set<std::string> paths;  // guarded by mutex
};

Registry& registry() {
  static Registry instance;
  return instance;
}

std::string systemReason(int error) {
  return std::generic_category().message(error);
}

[[noreturn]] void refuseDirectory(const std::string& directory, const std::string& reason) {
  throw Exception<CannotWriteIntoDirectory>(directory, reason);
}

[[noreturn]] void refuseFile(const std::string& path, const std::string& reason) {
  throw Exception<CannotWriteFile>(path, reason);
}

[[noreturn]] void refuseFile(const std::string& path, int error) {
  refuseFile(path, systemReason(error));
}

std::string directoryOf(const std::string& path) {
  const std::filesystem::path directory = std::filesystem::path(path).parent_path();
  return directory.empty() ? "." : directory.string();
}

// What must not be replaced by a file: a device, say.
void checkPlace(const std::string& path) {
  if (!std::filesystem::path(path).has_filename())
    refuseFile(path, "it names no file");
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0)
    return;
  if (S_ISDIR(status.st_mode))
    refuseFile(path, "it is a directory");
  if (!S_ISREG(status.st_mode))
    refuseFile(path, "it is there already and not a regular file");
}

// The file that a link at the path leads to.
std::string followed(const std::string& path) {
  checkPlace(path);
  std::error_code none;
  const auto file = std::filesystem::canonical(path, none);
  return none ? path : file.string();
}

std::string randomSuffix() {
  constexpr char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device device;
  std::uniform_int_distribution<std::size_t> letter(0, sizeof(letters) - 2);
  std::string suffix(12, ' ');
  for (char& c : suffix)
    c = letters[letter(device)];
  return suffix;
}

std::string createTemporary(const std::string& directory) {
  for (;;) {
    std::string path = directory + "/.zks-" + randomSuffix();
    const std::lock_guard lock(registry().mutex);
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (file >= 0) {
      ::close(file);
      registry().paths.insert(path);
      return path;
    }
    if (errno != EEXIST)
      refuseDirectory(directory, systemReason(errno));
  }
}

}  // namespace

AtomicFile::AtomicFile(const std::string& path)
    : path_(followed(path)), temporaryPath_(createTemporary(directoryOf(path_))) {}

AtomicFile::~AtomicFile() {
  if (temporaryPath_.empty())
    return;
  const std::lock_guard lock(registry().mutex);
  ::unlink(temporaryPath_.c_str());
  registry().paths.erase(temporaryPath_);
}

void AtomicFile::write(const std::function<void(const std::string&)>& writer) const {
  try {
    writer(temporaryPath_);
  } catch (const Corvane::System::InterruptException&) {
    throw;
  } catch (...) {
    utInterruptState::ThrowIfInterruptPending();
    checkWritable();
    throw;
  }
}

// Throws the system's reason if the file cannot take more bytes: a full disk or a limit that cut the file short is
// still there to be found.
void AtomicFile::checkWritable() const {
  const int file = ::open(temporaryPath_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (file < 0)
    refuseFile(path_, errno);
  static const std::array<char, 16384> more{};  // as much as a stream's buffer may have lost, and to spare
  struct stat before {};
  int error = ::fstat(file, &before) == 0 ? 0 : errno;
  for (std::size_t done = 0; error == 0 && done < more.size();) {
    const ssize_t written = ::write(file, more.data() + done, more.size() - done);
    if (written >= 0)
      done += static_cast<std::size_t>(written);
    else if (errno != EINTR)
      error = errno;
  }
  while (::ftruncate(file, before.st_size) != 0 && errno == EINTR) {
  }
  ::close(file);
  if (error != 0)
    refuseFile(path_, error);
}

void AtomicFile::commit() {
  checkWritable();
  if (::rename(temporaryPath_.c_str(), path_.c_str()) != 0)
    refuseFile(path_, errno);
  const std::lock_guard lock(registry().mutex);
  registry().paths.erase(temporaryPath_);
  temporaryPath_.clear();
}

void checkWritablePlace(const std::string& path) {
  checkPlace(path);
  checkDirectory(directoryOf(path));
}

void checkDirectory(const std::string& directory) {
  struct stat status {};
  if (::stat(directory.c_str(), &status) != 0)
    refuseDirectory(directory, systemReason(errno));
  if (!S_ISDIR(status.st_mode))
    refuseDirectory(directory, "it is not a directory");
  if (::faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) != 0)
    refuseDirectory(directory, systemReason(errno));
}

void removeAllTemporaryFiles() noexcept {
  const std::lock_guard lock(registry().mutex);
  for (const std::string& path : registry().paths)
    ::unlink(path.c_str());
  registry().paths.clear();
}

}  // namespace parallel::toolbox
