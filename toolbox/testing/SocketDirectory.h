// For tests: a place for a socket file, gone with the object.
#pragma once

#include <string>

#include "platform/files/testing/TemporaryDirectory.h"

namespace parallel::toolbox {

class SocketDirectory {
 public:
  const std::string& directory() const noexcept { return directory_.path(); }
  std::string path() const { return directory() + "/s"; }
  std::string address() const { return "unix:" + path(); }

 private:
  files::testing::TemporaryDirectory directory_;
};

}  // namespace parallel::toolbox
