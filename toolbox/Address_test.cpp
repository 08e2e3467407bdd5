#include "toolbox/Address.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
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
      {"unix:", "the path of the socket file is missing"},
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
      {"http://localhost:80", "in brackets"},
      {"a/b:80", "no slashes"},
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
