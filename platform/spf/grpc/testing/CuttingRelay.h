// For tests: stands between a client and a service, and cuts the connection after so many bytes.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace agent::spf::testing {

// Passes on one connection over socket files. A thread of its own does; it ends with the connection or with the object.
class CuttingRelay {
 public:
  static constexpr std::size_t kEndless = std::numeric_limits<std::size_t>::max();

  // Lets so many bytes through each way; the next one cuts the connection, both ways.
  struct Budget {
    std::size_t toService = kEndless;
    std::size_t toClient = kEndless;
  };

  // Listens at the socket file `path` for one client, whose bytes go to the one `service`.
  CuttingRelay(std::string path, std::string service, Budget budget)
      : path_(std::move(path)), service_(std::move(service)), left_(budget), listener_(makeSocket()) {
    const sockaddr_un at = nameOf(path_);
    if (::bind(listener_, reinterpret_cast<const sockaddr*>(&at), sizeof at) != 0 || ::listen(listener_, 1) != 0)
      throw std::runtime_error("the relay cannot listen at " + path_);
    thread_ = std::thread([this] { relay(); });
  }
  ~CuttingRelay() {
    ::shutdown(listener_, SHUT_RDWR);  // ends an accept that waits
    thread_.join();
    ::close(listener_);
    ::unlink(path_.c_str());
  }
  CuttingRelay(const CuttingRelay&) = delete;
  CuttingRelay& operator=(const CuttingRelay&) = delete;

  // What went through so far.
  std::size_t toService() const noexcept { return passedToService_; }
  std::size_t toClient() const noexcept { return passedToClient_; }

 private:
  static int makeSocket() { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); }
  static sockaddr_un nameOf(const std::string& path) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::strncpy(name.sun_path, path.c_str(), sizeof name.sun_path - 1);
    return name;
  }

  void relay() {
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    ::unlink(path_.c_str());  // whoever comes next is told at once that there is nothing
    if (client < 0)
      return;
    const int service = makeSocket();
    const sockaddr_un to = nameOf(service_);
    if (::connect(service, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0)
      passOn(client, service);
    ::close(service);
    ::close(client);
  }

  void passOn(int client, int service) {
    for (;;) {
      pollfd waiting[] = {{client, POLLIN, 0}, {service, POLLIN, 0}};
      if (::poll(waiting, 2, -1) < 0)
        return;
      if (waiting[0].revents != 0 && !passSome(client, service, left_.toService, passedToService_))
        return;
      if (waiting[1].revents != 0 && !passSome(service, client, left_.toClient, passedToClient_))
        return;
    }
  }

  // False when the connection is to end.
  static bool passSome(int from, int to, std::size_t& left, std::atomic<std::size_t>& passed) {
    std::vector<char> bytes(4096);
    const ssize_t got = ::recv(from, bytes.data(), bytes.size(), 0);
    if (got <= 0)
      return false;
    const std::size_t part = std::min(left, static_cast<std::size_t>(got));
    if (::send(to, bytes.data(), part, MSG_NOSIGNAL) != static_cast<ssize_t>(part))
      return false;
    passed += part;
    if (left != kEndless)
      left -= part;
    return part == static_cast<std::size_t>(got);
  }

  const std::string path_;
  const std::string service_;
  Budget left_;
  std::atomic<std::size_t> passedToService_{0};
  std::atomic<std::size_t> passedToClient_{0};
  const int listener_;
  std::thread thread_;
};

}  // namespace agent::spf::testing
