#include "toolbox/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <set>
#include <string_view>
#include <system_error>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/systemError.h"
#include "platform/interrupt/throwIfInterrupted.h"
#include "platform/threads/Mutex.h"
#include "toolbox/takeOverAttributes.h"

namespace parallel::toolbox {
namespace {

using errors::systemErrorText;
using spf::transport::ByteSink;
using threads::MutexLock;

constexpr std::size_t kBufferBytes = std::size_t{256} << 10;
// The disk works on two of these at a time, and an interrupt waits for no more.
constexpr std::uint64_t kPieceBytes = std::uint64_t{4} << 20;

// What of a file the system keeps in memory once it has reached the disk. A file that is given up is dropped from there
// when it is closed: some 0.2 ms for each MiB on a busy machine, and nothing can interrupt that.
constexpr std::uint64_t kKeptBytes = std::uint64_t{64} << 20;

constexpr std::string_view kTemporaryPrefix = ".zks-";
constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyz0123456789";
constexpr std::size_t kSuffixLength = 12;

struct Registry {
  threads::Mutex mutex;
  std::set<std::string> paths ZKS_GUARDED_BY(mutex);
  std::set<std::string> sweptDirectories ZKS_GUARDED_BY(mutex);
};

Registry& registry() {
  static Registry instance;
  return instance;
}

[[noreturn]] void refuseDirectory(const std::string& directory, const std::string& reason) {
  throw Exception<CannotWriteIntoDirectory>(directory, reason);
}

[[noreturn]] void refuseFile(const std::string& path, const std::string& reason) {
  throw Exception<CannotWriteFile>(path, reason);
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

bool isThere(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

std::string temporaryName() {
  std::random_device device;
  std::uniform_int_distribution<std::size_t> letter(0, kLetters.size() - 1);
  std::string name(kTemporaryPrefix);
  for (std::size_t i = 0; i < kSuffixLength; ++i)
    name += kLetters[letter(device)];
  return name;
}

bool isTemporaryName(std::string_view name) {
  return name.starts_with(kTemporaryPrefix) && name.size() == kTemporaryPrefix.size() + kSuffixLength &&
         name.find_first_not_of(kLetters, kTemporaryPrefix.size()) == std::string_view::npos;
}

// Nobody has written to it for a day: its program was killed.
bool isForsaken(const std::filesystem::directory_entry& file) {
  std::error_code gone;
  const auto written = file.last_write_time(gone);
  return !gone && isTemporaryName(file.path().filename().native()) &&
         std::filesystem::file_time_type::clock::now() - written > std::chrono::hours(24);
}

void removeForsakenFiles(const std::string& directory) {
  std::error_code error;
  for (std::filesystem::directory_iterator file(directory, error), end; !error && file != end; file.increment(error)) {
    std::error_code gone;
    if (isForsaken(*file))
      std::filesystem::remove(file->path(), gone);
  }
}

void sweep(const std::string& directory) {
  {
    const MutexLock lock(registry().mutex);
    if (!registry().sweptDirectories.insert(directory).second)
      return;
  }
  removeForsakenFiles(directory);
}

// Has `make` try names in the directory until one is free, which is then remembered. `make` sets errno when it fails.
template <class Make>
std::string underFreeName(const std::string& directory, Make make) {
  sweep(directory);
  for (;;) {
    std::string path = directory + "/" + temporaryName();
    const MutexLock lock(registry().mutex);
    if (make(path)) {
      registry().paths.insert(path);
      return path;
    }
    if (errno != EEXIST)
      refuseDirectory(directory, systemErrorText(errno));
  }
}

void forget(const std::string& temporaryPath) {
  const MutexLock lock(registry().mutex);
  registry().paths.erase(temporaryPath);
}

// Gives the open file, which may have none, a name.
bool link(const files::UniqueFd& file, const std::string& path) noexcept {
  const std::string from = "/proc/self/fd/" + std::to_string(file.get());
  return ::linkat(AT_FDCWD, from.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

// The error number, 0 when all is written.
int writeAll(int file, const std::byte* data, std::size_t nbytes) {
  while (nbytes > 0) {
    const ssize_t written = ::write(file, data, nbytes);
    if (written >= 0) {
      data += written;
      nbytes -= static_cast<std::size_t>(written);
    } else if (errno == EINTR) {
      throwIfInterrupted();
    } else {
      return errno;
    }
  }
  return 0;
}

// The error number. A file system that cannot write out a part of a file is left to fsync.
int syncRange(int file, std::uint64_t offset, std::uint64_t nbytes, unsigned flags) noexcept {
  if (::sync_file_range(file, static_cast<off64_t>(offset), static_cast<off64_t>(nbytes), flags) == 0)
    return 0;
  return errno == ENOSYS || errno == EINVAL || errno == ESPIPE ? 0 : errno;
}

int syncAll(int file) noexcept {
  while (::fsync(file) != 0) {
    if (errno != EINTR)
      return errno;
  }
  return 0;
}

// Writes to a device or a pipe.
class DeviceSink final : public ByteSink {
 public:
  explicit DeviceSink(const std::string& path) : path_(path), file_(::open(path.c_str(), O_WRONLY | O_CLOEXEC)) {
    if (!file_)
      refuseFile(path_, systemErrorText(errno));
  }

  void write(const std::byte* data, std::size_t nbytes) override {
    if (const int error = writeAll(file_.get(), data, nbytes))
      refuseFile(path_, systemErrorText(error));
  }

 private:
  std::string path_;
  files::UniqueFd file_;
};

bool isDevice(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

}  // namespace

AtomicFile::AtomicFile(const std::string& path) : path_(followed(path)) {
  buffer_.reserve(kBufferBytes);
  create();
  if (isThere(path_))
    takeOverAttributes(path_, file_.get());
}

void AtomicFile::create() {
  const std::string directory = directoryOf(path_);
  // Nobody else may read what replaces a file that he may not read.
  const mode_t mode = isThere(path_) ? 0600 : 0666;
  file_ = files::UniqueFd(::open(directory.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, mode));
  if (file_)
    return;
  temporaryPath_ = underFreeName(directory, [&](const std::string& name) {
    file_ = files::UniqueFd(::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    return static_cast<bool>(file_);
  });
}

AtomicFile::~AtomicFile() {
  if (temporaryPath_.empty())
    return;
  ::unlink(temporaryPath_.c_str());
  forget(temporaryPath_);
}

void AtomicFile::refuse(int error) const {
  refuseFile(path_, systemErrorText(error));
}

void AtomicFile::write(const std::byte* data, std::size_t nbytes) {
  if (buffer_.size() + nbytes > kBufferBytes)
    flush();
  for (; nbytes > kBufferBytes; data += kBufferBytes, nbytes -= kBufferBytes)
    pass(data, kBufferBytes);
  buffer_.insert(buffer_.end(), data, data + nbytes);
}

void AtomicFile::flush() {
  pass(buffer_.data(), buffer_.size());
  buffer_.clear();
}

// To the system.
void AtomicFile::pass(const std::byte* data, std::size_t nbytes) {
  throwIfInterrupted();
  if (const int error = writeAll(file_.get(), data, nbytes))
    refuse(error);
  written_ += nbytes;
  writeOut();
}

// Sends whole pieces on their way to the disk, and waits for each when the next one is on its way. Were it all left to
// the end, no interrupt could end the long wait for it.
void AtomicFile::writeOut() {
  constexpr unsigned kWait = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
  for (; written_ - writtenOut_ >= kPieceBytes; writtenOut_ += kPieceBytes) {
    throwIfInterrupted();
    int error = syncRange(file_.get(), writtenOut_, kPieceBytes, SYNC_FILE_RANGE_WRITE);
    if (error == 0 && writtenOut_ > 0)
      error = syncRange(file_.get(), writtenOut_ - kPieceBytes, kPieceBytes, kWait);
    if (error != 0)
      refuse(error);
    if (writtenOut_ >= kKeptBytes)
      ::posix_fadvise(file_.get(), static_cast<off_t>(writtenOut_ - kKeptBytes), kPieceBytes, POSIX_FADV_DONTNEED);
  }
}

void AtomicFile::sync() {
  throwIfInterrupted();
  if (const int error = syncAll(file_.get()))
    refuse(error);
  struct stat status {};
  if (::fstat(file_.get(), &status) != 0)
    refuse(errno);
  if (static_cast<std::uint64_t>(status.st_size) != written_)
    refuseFile(path_, "it has " + std::to_string(status.st_size) + " bytes, not the " + std::to_string(written_) +
                          " that were written");
}

// A file system may tell of a failed write only now. A file without a name is held on to by a handle that nothing can be
// written through.
void AtomicFile::close() {
  files::UniqueFd handle;
  if (temporaryPath_.empty()) {
    const std::string file = "/proc/self/fd/" + std::to_string(file_.get());
    handle = files::UniqueFd(::open(file.c_str(), O_PATH | O_CLOEXEC));
    if (!handle)
      refuse(errno);
  }
  if (::close(file_.release()) != 0 && errno != EINTR)
    refuse(errno);
  file_ = std::move(handle);
}

void AtomicFile::putInPlace() {
  if (temporaryPath_.empty()) {
    if (link(file_, path_))
      return;
    if (errno != EEXIST)
      refuse(errno);
    temporaryPath_ = underFreeName(directoryOf(path_), [this](const std::string& name) { return link(file_, name); });
  }
  if (::rename(temporaryPath_.c_str(), path_.c_str()) != 0)
    refuse(errno);
  forget(temporaryPath_);
  temporaryPath_.clear();
}

void AtomicFile::makeExecutable() {
  struct stat status {};
  if (::fstat(file_.get(), &status) != 0)
    refuse(errno);
  const mode_t readers = status.st_mode & (S_IRUSR | S_IRGRP | S_IROTH);
  if (::fchmod(file_.get(), (status.st_mode & 0777) | readers >> 2) != 0)
    refuse(errno);
}

void AtomicFile::commit() {
  flush();
  sync();
  close();
  putInPlace();
}

void writeFile(const std::string& path, const std::function<void(ByteSink&)>& writer, FileKind kind) {
  if (isDevice(path)) {
    DeviceSink device(path);
    return writer(device);
  }
  AtomicFile file(path);
  if (kind == FileKind::Program)
    file.makeExecutable();
  writer(file);
  file.commit();
}

void checkWritablePlace(const std::string& path) {
  checkPlace(path);
  checkDirectory(directoryOf(path));
}

void checkDirectory(const std::string& directory) {
  struct stat status {};
  if (::stat(directory.c_str(), &status) != 0)
    refuseDirectory(directory, systemErrorText(errno));
  if (!S_ISDIR(status.st_mode))
    refuseDirectory(directory, "it is not a directory");
  if (::faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) != 0)
    refuseDirectory(directory, systemErrorText(errno));
}

void removeAllTemporaryFiles() noexcept {
  const MutexLock lock(registry().mutex);
  for (const std::string& path : registry().paths)
    ::unlink(path.c_str());
  registry().paths.clear();
}

}  // namespace parallel::toolbox
