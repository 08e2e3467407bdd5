#include "execution/listFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "transport/data/testing/TemporaryDirectory.h"

namespace parallel::execution {
namespace {

namespace fs = std::filesystem;
using spf::transport::testing::TemporaryDirectory;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

class ListFolder : public ::testing::Test {
 protected:
  void makeFolder(const std::string& path) const { fs::create_directories(root_.file(path)); }
  void makeFile(const std::string& path) const { std::ofstream(root_.file(path)) << "x"; }
  FolderContents list(std::size_t most = 1000) const { return listFolder(root_.file(""), "d", most); }

  TemporaryDirectory root_;
};

TEST_F(ListFolder, EmptyFolderIsItself) {
  makeFolder("d");
  EXPECT_THAT(list().folders, ElementsAre("d"));
  EXPECT_THAT(list().files, IsEmpty());
}

TEST_F(ListFolder, FoldersComeAfterTheOneThatTheyAreInAndNamesInOrder) {
  for (const char* folder : {"d/b/deep", "d/a", "e"})
    makeFolder(folder);
  for (const char* file : {"d/z", "d/a/y", "d/b/deep/x", "e/not"})
    makeFile(file);
  EXPECT_THAT(list().folders, ElementsAre("d", "d/a", "d/b", "d/b/deep"));
  EXPECT_THAT(list().files, ElementsAre("d/z", "d/a/y", "d/b/deep/x"));
  EXPECT_THAT(list().unusable, IsEmpty());
}

TEST_F(ListFolder, LinksAreNotFollowed) {
  makeFolder("d");
  makeFolder("e");
  makeFile("e/secret");
  fs::create_directory_symlink(root_.file("e"), root_.file("d/link"));
  fs::create_directory_symlink("..", root_.file("d/round"));
  EXPECT_THAT(list().folders, ElementsAre("d"));
  EXPECT_THAT(list().files, ElementsAre("d/link", "d/round"));
}

TEST_F(ListFolder, NamesThatNoMessageCanHoldAreToldEscaped) {
  makeFolder("d/\xE9");
  makeFile("d/\xE9/x");
  EXPECT_THAT(list().folders, ElementsAre("d"));
  EXPECT_THAT(list().unusable, ElementsAre(Pair("d/\\xe9", "its name is not UTF-8")));
}

TEST_F(ListFolder, EndsSoonAfterTheMostEntries) {
  makeFolder("d/a");
  makeFolder("d/b");
  for (int i = 0; i < 20; ++i)
    makeFile("d/a/" + std::to_string(i));
  makeFile("d/b/x");
  EXPECT_EQ(list(24).entries(), 24U) << "three folders and twenty-one files";
  EXPECT_GT(list(23).entries(), 23U);
  const FolderContents few = list(5);
  EXPECT_GT(few.entries(), 5U);
  EXPECT_LE(few.entries(), 10U);
}

}  // namespace
}  // namespace parallel::execution
