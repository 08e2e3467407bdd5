#include "scheduler/daemon/SocketClaim.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/errors/systemError.h"
#include "platform/errors/visibleText.h"
#include "scheduler/daemon/DaemonError.h"
#include "scheduler/daemon/absolutePath.h"

namespace parallel::scheduler {

using errors::systemErrorText;
using files::UniqueFd;
namespace fs = std::filesystem;

namespace {

std::string inQuotes(const fs::path& path) {
  return errors::inQuotes(path.string(), PATH_MAX);
}

fs::path checkedPath(const fs::path& path) {
  constexpr std::size_t kMaxBytes = sizeof(sockaddr_un::sun_path) - 1;
  if (path.empty())
    throw DaemonError("The socket file needs a name");
  fs::path absolute = absolutePath(path);
  if (absolute.string().size() > kMaxBytes)
    throw DaemonError("The socket file's path " + inQuotes(absolute) + " has " +
                      std::to_string(absolute.string().size()) + " bytes, and the system takes at most " +
                      std::to_string(kMaxBytes) + "; choose a shorter one with --socket");
  return absolute;
}

UniqueFd openLock(const fs::path& path) {
  UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!file)
    throw DaemonError("The lock file " + inQuotes(path) + " cannot be made: " + systemErrorText(errno));
  return file;
}

std::string ownerText(const UniqueFd& lock) {
  std::array<char, 32> text{};
  const ssize_t nbytes = ::pread(lock.get(), text.data(), text.size() - 1, 0);
  return nbytes > 0 ? " (process " + std::string(text.data()) + ")" : "";
}

bool isStillAt(const UniqueFd& file, const fs::path& path) {
  struct stat opened {};
  struct stat named {};
  return ::fstat(file.get(), &opened) == 0 && ::stat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

// 0 when somebody listens there, else the error of connecting.
int tryConnect(const fs::path& socket) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, socket.c_str(), socket.string().size());
  const UniqueFd client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!client)
    return errno;
  return ::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

}  // namespace

SocketClaim::PrivateFiles::PrivateFiles() : previous_(::umask(S_IRWXG | S_IRWXO | S_IXUSR)) {}

SocketClaim::PrivateFiles::~PrivateFiles() {
  ::umask(previous_);
}

SocketClaim::SocketClaim(const fs::path& socket) : socket_(checkedPath(socket)), lockPath_(socket_.string() + ".lock") {
  lock();
  try {
    removeDeadSocket();
  } catch (...) {
    ::unlink(lockPath_.c_str());
    throw;
  }
}

SocketClaim::~SocketClaim() {
  ::unlink(socket_.c_str());
  ::unlink(lockPath_.c_str());
}

void SocketClaim::lock() {
  // The owner before may remove the file between our opening and locking it: then the lock is worth nothing.
  do {
    lock_ = openLock(lockPath_);
    if (::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0)
      throw DaemonError("Another zksd" + ownerText(lock_) + " listens on " + inQuotes(socket_));
  } while (!isStillAt(lock_, lockPath_));
  const std::string owner = std::to_string(::getpid());
  if (::ftruncate(lock_.get(), 0) != 0 ||
      ::pwrite(lock_.get(), owner.data(), owner.size(), 0) != static_cast<ssize_t>(owner.size()))
    throw DaemonError("The lock file " + inQuotes(lockPath_) + " cannot be written: " + systemErrorText(errno));
}

void SocketClaim::removeDeadSocket() const {
  struct stat status {};
  if (::lstat(socket_.c_str(), &status) != 0)
    return;
  if (!S_ISSOCK(status.st_mode))
    throw DaemonError("There is a file at " + inQuotes(socket_) + " that is not a socket; it is left alone");
  const int error = tryConnect(socket_);
  if (error == 0 || error == EAGAIN)
    throw DaemonError("Another program listens on " + inQuotes(socket_));
  if (error != ECONNREFUSED)
    throw DaemonError("It cannot be told whether somebody listens on " + inQuotes(socket_) + ": " +
                      systemErrorText(error));
  if (::unlink(socket_.c_str()) != 0)
    throw DaemonError("The dead socket file " + inQuotes(socket_) + " cannot be removed: " + systemErrorText(errno));
}

}  // namespace parallel::scheduler
