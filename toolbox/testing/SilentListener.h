// For tests: lets clients connect to a socket file, and says nothing.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <stdexcept>
#include <string>

#include "execution/testing/waiting.h"
#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"

namespace parallel::toolbox {

class SilentListener {
 public:
  explicit SilentListener(const std::string& path) : listening_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    path.copy(name.sun_path, sizeof name.sun_path - 1);
    if (::bind(listening_.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0 ||
        ::listen(listening_.get(), 8) != 0)
      errors::throwSystemError("listen");
  }

  // The next client's connection; throws at the deadline.
  files::UniqueFd accept() const {
    if (!execution::testing::isReadable(listening_.get()))
      throw std::runtime_error("nobody connected");
    return files::UniqueFd(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

 private:
  files::UniqueFd listening_;
};

}  // namespace parallel::toolbox
