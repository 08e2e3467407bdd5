#include "scheduler/store/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/errors/systemError.h"
#include "platform/errors/visibleText.h"

namespace parallel::scheduler::store {

using files::UniqueFd;
namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const char* doing, const fs::path& path, int error = errno) {
  errors::throwSystemError(std::string(doing) + " " + errors::inQuotes(path.string(), path.string().size()), error);
}

}  // namespace

UniqueFd Files::openToAppend(const fs::path& path) {
  UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!file)
    fail("Opening", path);
  return file;
}

void Files::write(const UniqueFd& file, std::string_view bytes, const fs::path& path) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR)
      fail("Writing", path);
    bytes.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
  }
}

void Files::sync(const UniqueFd& file, const fs::path& path) {
  if (::fsync(file.get()) != 0)
    fail("Syncing", path);
}

void Files::allocate(const UniqueFd& file, std::uint64_t nbytes, const fs::path& path) {
  if (const int error = ::posix_fallocate(file.get(), 0, static_cast<off_t>(nbytes)); error != 0)
    fail("Taking room for", path, error);
}

void Files::rename(const fs::path& from, const fs::path& to) {
  if (::rename(from.c_str(), to.c_str()) != 0)
    fail("Renaming", from);
}

void Files::remove(const fs::path& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT)
    fail("Removing", path);
}

void Files::makeFolder(const fs::path& path) {
  if (::mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST)
    fail("Making the folder", path);
}

void Files::syncFolder(const fs::path& path) {
  const UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder || ::fsync(folder.get()) != 0)
    fail("Syncing the folder", path);
}

Files& systemFiles() {
  static Files files;
  return files;
}

Files& unsyncedFiles() {
  class Unsynced : public Files {
    void sync(const UniqueFd&, const fs::path&) override {}
    void syncFolder(const fs::path&) override {}
  };
  static Unsynced files;
  return files;
}

}  // namespace parallel::scheduler::store
