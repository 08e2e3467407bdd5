#include "platform/spf/grpc/internal/client/UnixSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>

#include "platform/spf/grpc/internal/endpoint/address.h"

namespace agent::spf::grpc_transport::internal {

namespace {

constexpr int kRetryMilliseconds = 50;

[[noreturn]] void fail(int error) {
  throw std::system_error(error, std::generic_category());
}

// The kernel tells nobody when the listener's queue has room again, so that is asked anew.
void connectUntil(int fd, const sockaddr_un& to, std::chrono::system_clock::time_point deadline,
                  const std::function<void()>& poll) {
  while (::connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
    if (errno != EAGAIN && errno != EINTR)
      fail(errno);
    if (std::chrono::system_clock::now() >= deadline)
      fail(ETIMEDOUT);
    ::poll(nullptr, 0, kRetryMilliseconds);
    if (poll)
      poll();
  }
}

}  // namespace

UnixSocket::UnixSocket(const std::string& path, std::chrono::system_clock::time_point deadline,
                       const std::function<void()>& poll) {
  sockaddr_un to{};
  if (!fillAddress(path, to))
    fail(ENAMETOOLONG);
  fd_ = files::UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd_)
    fail(errno);
  connectUntil(fd_.get(), to, deadline, poll);
}

int UnixSocket::share() const {
  const int shared = ::fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0);
  if (shared < 0)
    fail(errno);
  return shared;
}

void UnixSocket::cutOff() noexcept {
  ::shutdown(fd_.get(), SHUT_RDWR);
}

}  // namespace agent::spf::grpc_transport::internal
