#include "scheduler/store/StoreLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <fstream>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/systemError.h"
#include "platform/errors/visibleText.h"

namespace parallel::scheduler::store {

using errors::throwSystemError;

namespace {

constexpr std::size_t kLongestName = 1024;

std::string hostName() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  ::gethostname(name.data(), name.size() - 1);
  return name.data();
}

std::string bootName() {
  std::string name;
  std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), name);
  return name;
}

std::string holderOf(const files::UniqueFd& file) {
  std::array<char, kLongestName> text{};
  const ssize_t nbytes = ::pread(file.get(), text.data(), text.size(), 0);
  return nbytes > 0 ? errors::visibleText({text.data(), static_cast<std::size_t>(nbytes)}) : "another process";
}

}  // namespace

std::string StoreLock::ownName() {
  return "process " + std::to_string(::getpid()) + " on host " + hostName() + " (boot " + bootName() + ")";
}

StoreLock::StoreLock(const std::filesystem::path& folder) {
  const std::filesystem::path path = folder / "lock";
  const std::string what = "The lock file " + errors::inQuotes(path.string(), PATH_MAX);
  file_ = files::UniqueFd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!file_)
    throwSystemError(what);
  int locked = 0;
  do {
    locked = ::flock(file_.get(), LOCK_EX | LOCK_NB);
  } while (locked != 0 && errno == EINTR);
  if (locked != 0 && errno == EWOULDBLOCK)
    throw Exception<parallel::store::StoreInUse>(folder.string(), holderOf(file_));
  if (locked != 0)
    throwSystemError(what);
  const std::string name = ownName();
  if (::ftruncate(file_.get(), 0) != 0 ||
      ::pwrite(file_.get(), name.data(), name.size(), 0) != static_cast<ssize_t>(name.size()))
    throwSystemError(what);
}

}  // namespace parallel::scheduler::store
