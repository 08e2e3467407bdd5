// Raw sockets: what the machine can do. A request is a byte for what is wanted and the number of bytes, then the bytes.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "bench/spf_peers_internal.h"

namespace bench {

namespace {

constexpr std::size_t kChunk = std::size_t{64} << 10;

struct Request {
  char what;
  std::uint64_t nbytes;
};

void writeAll(int fd, const void* bytes, std::size_t size) {
  const char* from = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t done = ::send(fd, from, size, MSG_NOSIGNAL);
    if (done <= 0)
      throw std::runtime_error("send");
    from += done;
    size -= static_cast<std::size_t>(done);
  }
}

bool readAll(int fd, void* bytes, std::size_t size) {
  char* to = static_cast<char*>(bytes);
  while (size > 0) {
    const ssize_t done = ::recv(fd, to, size, 0);
    if (done <= 0)
      return false;
    to += done;
    size -= static_cast<std::size_t>(done);
  }
  return true;
}

int openSocket(const std::string& address, sockaddr_storage& to, socklen_t& size) {
  to = {};
  if (address.starts_with("unix:")) {
    auto& local = reinterpret_cast<sockaddr_un&>(to);
    local.sun_family = AF_UNIX;
    address.copy(local.sun_path, sizeof local.sun_path - 1, 5);
    size = sizeof local;
    return ::socket(AF_UNIX, SOCK_STREAM, 0);
  }
  auto& remote = reinterpret_cast<sockaddr_in&>(to);
  remote.sin_family = AF_INET;
  remote.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  remote.sin_port = htons(static_cast<std::uint16_t>(std::stoi(address.substr(address.rfind(':') + 1))));
  size = sizeof remote;
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

void serveConnection(int fd, std::vector<char>& store) {
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  std::vector<char> chunk(kChunk);
  Request request{};
  while (readAll(fd, &request, sizeof request)) {
    if (request.what == 's') {
      for (std::size_t done = 0; done < request.nbytes; done += kChunk)
        readAll(fd, store.data() + done, std::min<std::size_t>(kChunk, request.nbytes - done));
      writeAll(fd, "k", 1);
      continue;
    }
    for (std::size_t left = request.nbytes; left > 0;) {
      const ssize_t part = ::recv(fd, chunk.data(), std::min(left, kChunk), 0);
      if (part <= 0)
        return;
      writeAll(fd, chunk.data(), static_cast<std::size_t>(part));
      left -= static_cast<std::size_t>(part);
    }
  }
}

class RawPeer : public Peer {
 public:
  explicit RawPeer(const std::string& address) {
    sockaddr_storage to{};
    socklen_t size = 0;
    fd_ = openSocket(address, to, size);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&to), size) != 0)
      throw std::runtime_error("connect");
  }
  ~RawPeer() override { ::close(fd_); }
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  void sink(const std::vector<char>& payload) override {
    char byte = 0;
    ask('s', payload.size());
    writeAll(fd_, payload.data(), payload.size());
    readAll(fd_, &byte, 1);
  }

  void echo(const std::vector<char>& payload, std::vector<char>& back) override {
    ask('e', payload.size());
    std::thread writer([&] { writeAll(fd_, payload.data(), payload.size()); });
    readAll(fd_, back.data(), payload.size());
    writer.join();
  }

  void ping() override {
    char bytes[sizeof(Request) + kPingBytes] = {};
    const Request request{'e', kPingBytes};
    std::memcpy(bytes, &request, sizeof request);
    writeAll(fd_, bytes, sizeof bytes);
    readAll(fd_, bytes, kPingBytes);
  }

 private:
  void ask(char what, std::size_t nbytes) {
    Request request{};
    request.what = what;
    request.nbytes = nbytes;
    writeAll(fd_, &request, sizeof request);
  }

  int fd_ = -1;
};

}  // namespace

void serveRaw(const std::string& address) {
  std::vector<char> store(kStoreBytes, 1);
  sockaddr_storage at{};
  socklen_t size = 0;
  const int listener = openSocket(address, at, size);
  if (::bind(listener, reinterpret_cast<sockaddr*>(&at), size) != 0 || ::listen(listener, 8) != 0)
    throw std::runtime_error("bind");
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&at), &size);
  announceAddress(address.starts_with("unix:")
                      ? address
                      : "127.0.0.1:" + std::to_string(ntohs(reinterpret_cast<sockaddr_in&>(at).sin_port)));
  std::thread acceptor([&] {
    for (int fd = ::accept(listener, nullptr, nullptr); fd >= 0; fd = ::accept(listener, nullptr, nullptr)) {
      serveConnection(fd, store);
      ::close(fd);
    }
  });
  waitForEndOfInput();
  ::shutdown(listener, SHUT_RDWR);
  acceptor.join();
  ::close(listener);
}

std::unique_ptr<Peer> connectRaw(const std::string& address) {
  return std::make_unique<RawPeer>(address);
}

}  // namespace bench
