#include "worker/matchFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "platform/files/testing/TemporaryDirectory.h"

namespace parallel::worker {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(MatchFiles, PatternsStandForCharacters) {
  EXPECT_TRUE(matchesPattern("a.txt", "*.txt"));
  EXPECT_TRUE(matchesPattern("a.txt", "?.t?t"));
  EXPECT_TRUE(matchesPattern("abcabd", "a*bd"));
  EXPECT_TRUE(matchesPattern("abc", "abc*"));
  EXPECT_TRUE(matchesPattern("abc", "**"));
  EXPECT_FALSE(matchesPattern("abc", "ab"));
  EXPECT_FALSE(matchesPattern("ab", "ab?"));
  EXPECT_FALSE(matchesPattern("b.txt", "a*"));
  EXPECT_FALSE(matchesPattern(".hidden", "*"));
  EXPECT_TRUE(matchesPattern(".hidden", ".*"));
}

TEST(MatchFiles, FoldersOnTheWayAreSearched) {
  const files::testing::TemporaryDirectory files;
  for (const char* folder : {"run1", "run2/deep"})
    std::filesystem::create_directories(files.file(folder));
  for (const char* name : {"top.txt", "run1/b.txt", "run1/a.txt", "run2/c.txt", "run2/deep/d.txt"})
    std::ofstream(files.file(name)) << "x";
  std::filesystem::create_directory_symlink(files.file("run1"), files.file("run3"));
  EXPECT_THAT(matchFiles(files.path(), "*.txt"), ElementsAre("top.txt"));
  EXPECT_THAT(matchFiles(files.path(), "run?/*.txt"), ElementsAre("run1/a.txt", "run1/b.txt", "run2/c.txt"));
  EXPECT_THAT(matchFiles(files.path(), "run2/*/d.*"), ElementsAre("run2/deep/d.txt"));
  EXPECT_THAT(matchFiles(files.path(), "none/*"), IsEmpty());
}

}  // namespace
}  // namespace parallel::worker
