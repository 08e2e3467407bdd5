#include "toolbox/Address.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/errors/IException.h"
#include "platform/files/testing/TemporaryDirectory.h"

namespace parallel::toolbox {
namespace {

using testing::HasSubstr;

std::string refusal(std::string_view text) {
  try {
    return "accepted as " + resolveAddress(text);
  } catch (const std::exception& error) {
    const auto* identified = dynamic_cast<const IException*>(&error);
    EXPECT_EQ(identified == nullptr ? "" : identified->identifier(), "parallel:toolbox:BadAddress");
    return error.what();
  }
}

TEST(ResolveAddress, AbsoluteSocketPathStaysAsItIs) {
  EXPECT_EQ(resolveAddress("unix:/run/zks/socket"), "unix:/run/zks/socket");
}

TEST(ResolveAddress, RelativeSocketPathStartsAtTheCurrentDirectory) {
  EXPECT_EQ(resolveAddress("unix:sub/../s"), "unix:" + (std::filesystem::current_path() / "s").string());
}

TEST(ResolveAddress, HostsAndPortsStayAsTheyAre) {
  for (const char* address : {"localhost:1", "cluster-7.example.org:65535", "127.0.0.1:7777", "[::1]:7777"})
    EXPECT_EQ(resolveAddress(address), address);
}

// Without a path: where zksd listens when it is not told.
class DefaultSocket : public testing::Test {
 protected:
  DefaultSocket() { ::setenv("XDG_RUNTIME_DIR", runtime_.path().c_str(), 1); }
  ~DefaultSocket() override {
    if (before_)
      ::setenv("XDG_RUNTIME_DIR", before_->c_str(), 1);
    else
      ::unsetenv("XDG_RUNTIME_DIR");
  }

  std::filesystem::path directory() const { return runtime_.file("zks"); }

 private:
  static std::optional<std::string> current() {
    const char* value = std::getenv("XDG_RUNTIME_DIR");
    return value == nullptr ? std::nullopt : std::optional<std::string>(value);
  }

  std::optional<std::string> before_ = current();
  files::testing::TemporaryDirectory runtime_;
};

TEST_F(DefaultSocket, IsMeantByAnAddressWithoutAPath) {
  EXPECT_EQ(resolveAddress("unix:"), "unix:" + (directory() / "zksd.sock").string());
  std::filesystem::create_directory(directory());
  std::filesystem::permissions(directory(), std::filesystem::perms::owner_all);
  EXPECT_EQ(resolveAddress("unix:"), "unix:" + (directory() / "zksd.sock").string());
}

TEST_F(DefaultSocket, IsRefusedWhereOthersCouldHavePutIt) {
  std::filesystem::create_directory(directory());
  std::filesystem::permissions(directory(), std::filesystem::perms::all);
  EXPECT_THAT(refusal("unix:"), HasSubstr(directory().string() + "\" is open to others (mode 0777, not 0700)"));
}

TEST(ResolveAddress, NulInAPathIsRefusedAndShown) {
  const std::string message = refusal(std::string_view("unix:/a\0b", 9));
  EXPECT_THAT(message, HasSubstr("\"unix:/a\\0b\""));
  EXPECT_THAT(message, HasSubstr("NUL"));
}

TEST(ResolveAddress, RefusalsNameTheTextAndTheReason) {
  const struct {
    std::string text;
    const char* reason;
  } cases[] = {
      {"", "it is empty"},
      {"unix:/" + std::string(120, 'x'), "at most 107 bytes"},
      {"/run/zks/socket", "needs unix: before its path"},
      {"localhost", "the port is missing"},
      {"localhost:", "the port is missing"},
      {":7777", "the host is missing"},
      {"localhost:0", "number from 1 to 65535"},
      {"localhost:65536", "number from 1 to 65535"},
      {"localhost:99999999999", "number from 1 to 65535"},
      {"localhost:77x", "number from 1 to 65535"},
      {"localhost:-1", "number from 1 to 65535"},
      {"::1:7777", "in brackets"},
      {"[]:7777", "in brackets"},
      {"local host:7777", "no blanks"},
      {"http://localhost:80", "an address has no scheme; leave out \"http://\""},
      {"grpc://[::1]:80/path", "leave out \"grpc://\""},
      {"file:///run/zks/socket", "leave out \"file://\""},
      {"a/b:80", "no slashes"},
      {"run/socket", "needs unix: before its path"},
      {"[::1]", "the port is missing"},
      {"[::1:80", "in brackets"},
      {"fe80::1:80", "in brackets"},
      {"tcp:localhost:80", "more than one colon"},
      {"me@localhost:80", "no user's name"},
      {"localhost:80/", "number from 1 to 65535"},
  };
  for (const auto& [text, reason] : cases) {
    EXPECT_THAT(refusal(text), HasSubstr(reason)) << text;
    EXPECT_THAT(refusal(text), HasSubstr("\"" + text + "\"")) << text;
  }
}

TEST(ResolveAddress, RelativePathIsRefusedWhereThereIsNoCurrentDirectory) {
  const auto before = std::filesystem::current_path();
  {
    const files::testing::TemporaryDirectory directory;
    std::filesystem::current_path(directory.path());
  }
  EXPECT_THAT(refusal("unix:s"), HasSubstr("the current directory, from which the path starts, cannot be found"));
  EXPECT_EQ(resolveAddress("unix:/s"), "unix:/s");
  std::filesystem::current_path(before);
}

}  // namespace
}  // namespace parallel::toolbox
