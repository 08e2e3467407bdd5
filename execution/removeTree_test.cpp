#include "execution/removeTree.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <system_error>

#include "execution/testing/DescriptorLimit.h"
#include "platform/files/UniqueFd.h"
#include "transport/data/testing/TemporaryDirectory.h"

namespace parallel::execution {
namespace {

namespace fs = std::filesystem;
using files::UniqueFd;
using spf::transport::testing::TemporaryDirectory;
using testing::DescriptorLimit;

// So many directories, each in the one before, and a file in the last. No path leads there: it would be longer than the
// system takes.
void makeDeep(const fs::path& top, int levels) {
  const std::string name(200, 'd');
  fs::create_directory(top);
  UniqueFd directory(::open(top.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (int level = 1; level < levels; ++level) {
    ASSERT_EQ(::mkdirat(directory.get(), name.c_str(), 0700), 0);
    directory = UniqueFd(::openat(directory.get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(directory);
  }
  ASSERT_TRUE(UniqueFd(::openat(directory.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600)));
}

TEST(RemoveTree, RemovesDirectoriesMadeUnreadableAndFollowsNoLink) {
  const TemporaryDirectory directory;
  const fs::path outside = directory.file("outside");
  fs::create_directory(outside);
  std::ofstream(outside / "kept") << "x";
  const fs::path tree = directory.file("tree");
  fs::create_directories(tree / "a" / "b");
  std::ofstream(tree / "a" / "b" / "file") << "x";
  fs::create_directory_symlink(outside, tree / "a" / "link");
  fs::permissions(tree / "a" / "b", fs::perms::none);
  fs::permissions(tree / "a", fs::perms::none);
  EXPECT_FALSE(removeTree(tree));
  EXPECT_FALSE(fs::exists(tree));
  EXPECT_TRUE(fs::exists(outside / "kept"));
  EXPECT_FALSE(removeTree(tree));
}

TEST(RemoveTree, DepthTakesNoDescriptors) {
  const TemporaryDirectory directory;
  const fs::path tree = directory.file("tree");
  makeDeep(tree, 100);
  std::error_code error;
  {
    const DescriptorLimit limit(2);
    error = removeTree(tree);
  }
  EXPECT_FALSE(error);
  EXPECT_FALSE(fs::exists(tree));
}

TEST(RemoveTree, WideAndDeepTogetherGoWhole) {
  const TemporaryDirectory directory;
  const fs::path tree = directory.file("tree");
  for (const char* a : {"1", "2", "moved-1"}) {
    for (const char* b : {"1", "2", "moved-2"}) {
      for (const char* c : {"1", "moved-3"}) {
        fs::create_directories(tree / a / b / c / "empty");
        std::ofstream(tree / a / b / c / "file") << "x";
      }
    }
    std::ofstream(tree / a / "moved-4") << "x";
  }
  std::ofstream(tree / "moved-5") << "x";
  EXPECT_FALSE(removeTree(tree));
  EXPECT_FALSE(fs::exists(tree));
}

TEST(RemoveTree, FileIsRemovedAndALinkNotFollowed) {
  const TemporaryDirectory directory;
  std::ofstream(directory.file("file")) << "x";
  fs::create_directories(directory.file("kept") / "inner");
  fs::create_directory_symlink(directory.file("kept"), directory.file("link"));
  EXPECT_FALSE(removeTree(directory.file("file")));
  EXPECT_FALSE(removeTree(directory.file("link")));
  EXPECT_FALSE(fs::exists(directory.file("file")));
  EXPECT_FALSE(fs::is_symlink(directory.file("link")));
  EXPECT_TRUE(fs::exists(directory.file("kept") / "inner"));
}

TEST(RemoveTree, WhatCannotBeRemovedIsSaid) {
  const TemporaryDirectory directory;
  const fs::path tree = directory.file("tree");
  fs::create_directories(tree / "a");
  std::error_code error;
  {
    const DescriptorLimit limit(0);  // UndefinedBehaviourSanitizer needs some to look at a code's category
    error = removeTree(tree);
  }
  EXPECT_EQ(error, std::errc::too_many_files_open);
  EXPECT_TRUE(fs::exists(tree));
}

}  // namespace
}  // namespace parallel::execution
