// Preloaded into a program under test: makes a system call on the files of one directory fail.
//
//   FAULTY_DIRECTORY=/path   the files that are meant, those without a name among them
//   FAULTY_CALL=write        the call, by its name; "" for none
//   FAULTY_STEP=2            which of the calls, from 1
//   FAULTY_ERRNO=28          its error; 0: the call returns 0 and does nothing
//   FAULTY_NAMED=1           the file system knows no files without names
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kOpenFiles = "/proc/self/fd/";

const char* setting(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

bool isInDirectory(const char* path) {
  char absolute[8192];
  if (*path == '/')
    std::snprintf(absolute, sizeof absolute, "%s", path);
  else if (char current[4096]; ::getcwd(current, sizeof current) != nullptr)
    std::snprintf(absolute, sizeof absolute, "%s/%s", current, path);
  else
    return false;
  const char* directory = setting("FAULTY_DIRECTORY");
  return *directory != '\0' && std::strncmp(absolute, directory, std::strlen(directory)) == 0;
}

bool isInDirectory(int file) {
  char link[64];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", file);
  char path[4096];
  const ssize_t length = ::readlink(link, path, sizeof path - 1);
  path[length < 0 ? 0 : length] = '\0';
  return isInDirectory(path);
}

std::atomic<long> calls{0};

// Counts the calls that are meant. Sets errno for the one that fails.
template <class Place>
bool fails(const char* call, Place place) {
  if (std::strcmp(setting("FAULTY_CALL"), call) != 0 || !isInDirectory(place))
    return false;
  if (++calls != std::atol(setting("FAULTY_STEP")))
    return false;
  errno = std::atoi(setting("FAULTY_ERRNO"));
  return true;
}

int failure() {
  return errno == 0 ? 0 : -1;
}

}  // namespace

extern "C" {

ssize_t write(int file, const void* data, size_t nbytes) {
  return fails("write", file) ? failure() : ::syscall(SYS_write, file, data, nbytes);
}

ssize_t read(int file, void* data, size_t nbytes) {
  return fails("read", file) ? failure() : ::syscall(SYS_read, file, data, nbytes);
}

int fsync(int file) {
  return fails("fsync", file) ? failure() : static_cast<int>(::syscall(SYS_fsync, file));
}

int sync_file_range(int file, off64_t offset, off64_t nbytes, unsigned flags) {
  return fails("sync_file_range", file) ? failure()
                                        : static_cast<int>(::syscall(SYS_sync_file_range, file, offset, nbytes, flags));
}

// As on NFS, the file is closed even if the call fails.
int close(int file) {
  const bool failing = fails("close", file);
  const int error = errno;
  const int result = static_cast<int>(::syscall(SYS_close, file));
  if (!failing)
    return result;
  errno = error;
  return failure();
}

int linkat(int fromDirectory, const char* from, int toDirectory, const char* to, int flags) noexcept {
  return fails("linkat", to) ? failure()
                             : static_cast<int>(::syscall(SYS_linkat, fromDirectory, from, toDirectory, to, flags));
}

int rename(const char* from, const char* to) noexcept {
  return fails("rename", to) ? failure() : static_cast<int>(::syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

int fchmod(int file, mode_t mode) noexcept {
  return fails("fchmod", file) ? failure() : static_cast<int>(::syscall(SYS_fchmod, file, mode));
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);
  va_end(arguments);
  const bool withoutName = (flags & O_TMPFILE) == O_TMPFILE;
  if (withoutName && *setting("FAULTY_NAMED") != '\0') {
    errno = EOPNOTSUPP;
    return -1;
  }
  const std::string_view place(path);
  const bool failing =
      place.starts_with(kOpenFiles) ? fails("open", std::atoi(path + kOpenFiles.size())) : fails("open", path);
  return failing ? failure() : static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

}  // extern "C"
