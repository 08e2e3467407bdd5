#include "execution/findProgram.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "transport/data/testing/TemporaryDirectory.h"

namespace parallel::execution {
namespace {

namespace fs = std::filesystem;
using spf::transport::testing::TemporaryDirectory;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

bool never() {
  return false;
}

std::optional<std::string> find(const std::string& name, const std::string& path) {
  return findProgram(name, path, AT_FDCWD, never);
}

TEST(FindProgram, FirstExecutableFileOfThePathIsFound) {
  const TemporaryDirectory directory;
  for (const char* folder : {"a", "b", "c"})
    fs::create_directory(directory.file(folder));
  fs::create_directory(directory.file("a") / "tool");
  for (const char* folder : {"b", "c"}) {
    const fs::path tool = directory.file(folder) / "tool";
    std::ofstream(tool) << "#!/bin/sh\n";
    fs::permissions(tool, fs::perms::owner_all);
  }
  const std::string path =
      directory.file("a").string() + ":" + directory.file("b").string() + ":" + directory.file("c").string();
  EXPECT_EQ(find("tool", path), (directory.file("b") / "tool").string());
  EXPECT_EQ(find("./tool", path), "./tool");
}

TEST(FindProgram, SearchIsGivenUpBetweenTwoDirectories) {
  int asked = 0;
  const std::string path(1000, ':');
  EXPECT_EQ(findProgram("no-such-program", path, AT_FDCWD, [&] { return ++asked == 10; }), std::nullopt);
  EXPECT_EQ(asked, 10);
}

TEST(FindProgram, PathThatNoProgramCanBeGivenIsNotSearched) {
  int asked = 0;
  const auto search = [&] {
    findProgram("no-such-program", std::string(60'000'000, ':'), AT_FDCWD, [&] { return ++asked > 0; });
  };
  EXPECT_THAT(search, ThrowsMessage<StartFailure>("The program \"no-such-program\" is not searched: PATH has 60000000 "
                                                  "bytes, and no program can be given 131072 or more"));
  EXPECT_EQ(asked, 0);
}

TEST(FindProgram, NameThatNoFileHasIsNotSearched) {
  EXPECT_THAT([] { find(std::string(1'000'000, 'x'), "/bin"); },
              ThrowsMessage<StartFailure>(HasSubstr("xxx[... 1000000 bytes in all]\"")));
}

TEST(FindProgram, TextsShowNamesOnOneLineAndCut) {
  EXPECT_THAT([] { find("a\nb", "/x:/\x1B[2J"); },
              ThrowsMessage<StartFailure>("No program \"a\\x0ab\" in PATH (/x:/\\x1b[2J)"));
  EXPECT_THAT([] { find("none", std::string(5000, ':')); }, ThrowsMessage<StartFailure>(HasSubstr("[... 5000 bytes")));
}

}  // namespace
}  // namespace parallel::execution
