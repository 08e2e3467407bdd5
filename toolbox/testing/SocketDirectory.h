// A place for a socket file, gone with the object, and a socket there that never answers.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>

namespace parallel::toolbox {

class SocketDirectory {
 public:
  SocketDirectory() : directory_((std::filesystem::temp_directory_path() / "zks-test-XXXXXX").string()) {
    if (mkdtemp(directory_.data()) == nullptr)
      throw std::system_error(errno, std::generic_category(), "mkdtemp");
  }
  ~SocketDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  SocketDirectory(const SocketDirectory&) = delete;
  SocketDirectory& operator=(const SocketDirectory&) = delete;

  const std::string& directory() const noexcept { return directory_; }
  std::string path() const { return directory_ + "/s"; }
  std::string address() const { return "unix:" + path(); }

 private:
  std::string directory_;
};

class SilentListener {
 public:
  explicit SilentListener(const std::string& path) : file_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    path.copy(name.sun_path, sizeof name.sun_path - 1);
    if (::bind(file_, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0 || ::listen(file_, 8) != 0)
      throw std::system_error(errno, std::generic_category(), "listen");
  }
  ~SilentListener() { ::close(file_); }
  SilentListener(const SilentListener&) = delete;
  SilentListener& operator=(const SilentListener&) = delete;

 private:
  int file_;
};

// False when the deadline came first.
template <class Condition>
bool eventually(const Condition& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end)
      return false;
    std::this_thread::yield();
  }
  return true;
}

}  // namespace parallel::toolbox
