// The real programs, zks and zksd, in a directory of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "cli/testing/ChildProcess.h"
#include "cli/testing/files.h"
#include "platform/files/testing/TemporaryDirectory.h"

namespace zks {

using Words = std::vector<std::string>;

class ZksFixture : public testing::Test {
 protected:
  ZksFixture() { ::unsetenv("ZKS_ADDRESS"); }

  const std::string& directory() const noexcept { return directory_.path(); }
  std::string path(const std::string& name) const { return directory() + "/" + name; }

  // Starts zksd on a socket file and waits until it listens.
  void startDaemon(const Words& more = {}) {
    std::filesystem::create_directory(path("daemon"));
    address_ = "unix:" + path("daemon/s");
    Words words{ZKSD_PROGRAM, "--socket", path("daemon/s"), "--scratch", path("daemon"), "--log", "off"};
    words.insert(words.end(), more.begin(), more.end());
    daemon_ = std::make_unique<ChildProcess>(words, directory());
    ASSERT_NE(daemon_->readLine().find("listening"), std::string::npos);
  }
  ChildProcess& daemon() { return *daemon_; }

  // Empty: zks has a service of its own.
  void setAddress(std::string address) { address_ = std::move(address); }
  const std::string& address() const noexcept { return address_; }

  Words zksWords(const Words& words) const {
    Words command{ZKS_PROGRAM};
    if (!address_.empty())
      command.insert(command.end(), {"--address", address_});
    command.insert(command.end(), words.begin(), words.end());
    return command;
  }
  ProcessOutcome zks(const Words& words) const { return runProgram(zksWords(words), directory()); }
  std::unique_ptr<ChildProcess> startZks(const Words& words) const {
    return std::make_unique<ChildProcess>(zksWords(words), directory());
  }

  // The names in a directory of the test, sorted.
  Words namesIn(const std::string& name) const {
    Words names;
    for (const auto& entry : std::filesystem::directory_iterator(path(name)))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  // Whether the process has a file of the directory open, with a name or without.
  bool hasOpenFile(const ChildProcess& process, const std::string& name) const {
    const std::string directory = std::filesystem::canonical(path(name)).string() + "/";
    std::error_code gone;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process.pid()) + "/fd", gone)) {
      std::error_code closed;
      if (std::filesystem::read_symlink(entry.path(), closed).string().starts_with(directory))
        return true;
    }
    return false;
  }

 private:
  files::testing::TemporaryDirectory directory_;
  std::string address_;
  std::unique_ptr<ChildProcess> daemon_;
};

// Bytes without a pattern that a framing could hide behind.
inline std::string someBytes(std::size_t nbytes, std::uint32_t seed = 1) {
  std::string bytes(nbytes, '\0');
  for (char& byte : bytes) {
    seed = seed * 1664525 + 1013904223;
    byte = static_cast<char>(seed >> 24);
  }
  return bytes;
}

}  // namespace zks
