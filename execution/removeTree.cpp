#include "execution/removeTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "platform/files/UniqueFd.h"

namespace parallel::execution {

using files::UniqueFd;
namespace fs = std::filesystem;

namespace {

// A directory that is open for listing and changing. Gives us back the right to both, if it has been taken.
class OpenDirectory {
 public:
  OpenDirectory(int parent, const char* name) noexcept {
    UniqueFd fd = openAt(parent, name);
    if (fd)
      stream_.reset(::fdopendir(fd.get()));
    if (stream_ == nullptr)
      return;
    static_cast<void>(fd.release());  // the stream has it now
    ::fchmod(this->fd(), S_IRWXU);
  }

  // False when it could not be opened; errno says why.
  explicit operator bool() const noexcept { return stream_ != nullptr; }
  int fd() const noexcept { return ::dirfd(stream_.get()); }
  void rewind() noexcept { ::rewinddir(stream_.get()); }

  // Null at the end.
  const char* next() noexcept {
    while (const dirent* entry = ::readdir(stream_.get())) {
      const std::string_view name(static_cast<const char*>(entry->d_name));
      if (name != "." && name != "..")
        return static_cast<const char*>(entry->d_name);
    }
    return nullptr;
  }

 private:
  struct Close {
    void operator()(DIR* stream) const noexcept { ::closedir(stream); }
  };

  static UniqueFd openAt(int parent, const char* name) noexcept {
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    UniqueFd fd(::openat(parent, name, kFlags));
    if (fd || errno != EACCES)
      return fd;
    ::fchmodat(parent, name, S_IRWXU, 0);
    return UniqueFd(::openat(parent, name, kFlags));
  }

  std::unique_ptr<DIR, Close> stream_;
};

// 0 when it is gone.
int removeEntry(int directory, const char* name) noexcept {
  if (::unlinkat(directory, name, 0) == 0 || errno == ENOENT)
    return 0;
  const int error = errno;
  if (error != EISDIR && error != EPERM)  // what systems answer for a directory
    return error;
  if (::unlinkat(directory, name, AT_REMOVEDIR) == 0)
    return 0;
  return errno == ENOTDIR ? error : errno;
}

bool isNotEmpty(int error) noexcept {
  return error == ENOTEMPTY || error == EEXIST;
}

// Empties a tree: a directory inside that is not empty gives its own directories to the top, and goes. So no more than
// two directories are open, and no path grows, however deep the tree is.
class TreeRemoval {
 public:
  explicit TreeRemoval(OpenDirectory top) noexcept : top_(std::move(top)) {}

  // 0, or why something is left.
  int run() {
    constexpr int kIdlePasses = 10;  // a dying process may still add files
    int idle = 0;
    do {
      error_ = 0;
      moved_ = false;
      if (!pass())
        return 0;
      idle = moved_ ? 0 : idle + 1;
    } while (idle < kIdlePasses);
    return error_ != 0 ? error_ : ENOTEMPTY;
  }

 private:
  // False when there was nothing left to remove.
  bool pass() {
    bool found = false;
    top_.rewind();
    while (const char* name = top_.next()) {
      found = true;
      const int error = removeEntry(top_.fd(), name);
      if (isNotEmpty(error))
        flatten(name);
      else
        note(error);
    }
    return found;
  }

  void flatten(const char* name) {
    OpenDirectory inner(top_.fd(), name);
    if (!inner)
      return note(errno);
    while (const char* entry = inner.next()) {
      const int error = removeEntry(inner.fd(), entry);
      note(isNotEmpty(error) ? moveToTop(inner.fd(), entry) : error);
    }
    note(removeEntry(top_.fd(), name));
  }

  // Over whatever has the new name already, if that can be replaced: all goes.
  int moveToTop(int from, const char* name) {
    for (;;) {
      const std::string place = "moved-" + std::to_string(++count_);
      bool moved = ::renameat(from, name, top_.fd(), place.c_str()) == 0;
      if (!moved && errno == EACCES) {  // its ".." changes, and it may be write-protected
        ::fchmodat(from, name, S_IRWXU, 0);
        moved = ::renameat(from, name, top_.fd(), place.c_str()) == 0;
      }
      moved_ = moved_ || moved;
      if (moved || errno == ENOENT)
        return 0;
      if (!isNotEmpty(errno) && errno != ENOTDIR)
        return errno;
    }
  }

  void note(int error) noexcept {
    if (error_ == 0)
      error_ = error;
  }

  OpenDirectory top_;
  unsigned long count_ = 0;
  bool moved_ = false;
  int error_ = 0;
};

int removeAll(const fs::path& path) {
  constexpr int kAttempts = 10;  // the last entry gone, a dying process may add one more
  int error = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    error = removeEntry(AT_FDCWD, path.c_str());
    if (!isNotEmpty(error))
      return error;
    OpenDirectory top(AT_FDCWD, path.c_str());
    if (!top)
      return errno == ENOENT ? 0 : errno;
    if (const int left = TreeRemoval(std::move(top)).run(); left != 0)
      return left;
  }
  return error;
}

}  // namespace

std::error_code removeTree(const fs::path& path) noexcept try {
  return {removeAll(path), std::generic_category()};
} catch (const std::bad_alloc&) {
  return std::make_error_code(std::errc::not_enough_memory);
}

}  // namespace parallel::execution
