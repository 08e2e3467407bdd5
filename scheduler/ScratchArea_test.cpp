#include "scheduler/ScratchArea.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/logging/createQLVLogger.h"
#include "scheduler/FileTransfer.h"
#include "scheduler/TaskScratch.h"
#include "scheduler/removeTree.h"
#include "scheduler/testing/expectError.h"
#include "transport/data/testing/TemporaryDirectory.h"
#include "transport/streams/FunctionalByteSink.h"

namespace parallel::scheduler {
namespace {

namespace fs = std::filesystem;
using spf::transport::FunctionalByteSink;
using spf::transport::testing::TemporaryDirectory;
using ::testing::ThrowsMessage;

ScratchArea::Logger& logger() {
  return logging::createQLVLogger("zks.scheduler.test");
}

mode_t permissionsOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

std::vector<std::string> namesIn(const fs::path& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory))
    names.push_back(entry.path().filename());
  return names;
}

TEST(ScratchArea, IsItsUsersAloneAndGoesWithItsOwner) {
  const TemporaryDirectory parent;
  fs::path path;
  {
    const ScratchArea area(parent.file(""), logger());
    path = area.path();
    EXPECT_EQ(path.parent_path(), parent.file("").parent_path());
    EXPECT_EQ(permissionsOf(path), 0700U);
    std::ofstream(path / "leftover") << "x";
  }
  EXPECT_FALSE(fs::exists(path));
}

TEST(ScratchArea, ParentThatIsNotThereIsNamed) {
  EXPECT_THAT(
      [&] { const ScratchArea area("/no/such/place", logger()); },
      ThrowsMessage<std::system_error>("Making a scratch directory in \"/no/such/place\": No such file or directory"));
}

TEST(ScratchArea, LeftoversOfTheDeadAreRemovedAndTheLivingLeftAlone) {
  const TemporaryDirectory parent;
  const fs::path dead = parent.file("zks-scratch-abcdef");
  fs::create_directories(dead / "task-1" / "work");
  std::ofstream(dead / "task-1" / "stdout") << "x";
  const fs::path notOurs = parent.file("other-abcdef");
  fs::create_directory(notOurs);
  const fs::path notADirectory = parent.file("zks-scratch-file");
  std::ofstream(notADirectory) << "x";
  const fs::path elsewhere = parent.file("elsewhere");
  fs::create_directory(elsewhere);
  fs::create_directory_symlink(elsewhere, parent.file("zks-scratch-link"));

  const ScratchArea living(parent.file(""), logger());
  EXPECT_FALSE(fs::exists(dead));
  const ScratchArea second(parent.file(""), logger());
  EXPECT_TRUE(fs::exists(living.path()));
  EXPECT_TRUE(fs::exists(notOurs));
  EXPECT_TRUE(fs::exists(notADirectory));
  EXPECT_TRUE(fs::exists(elsewhere));
}

TEST(TaskScratch, HasAPrivateWorkDirectoryAndTheCapturesBesideIt) {
  const TemporaryDirectory parent;
  ScratchArea area(parent.file(""), logger());
  {
    const TaskScratch scratch(area);
    EXPECT_EQ(permissionsOf(scratch.path()), 0700U);
    EXPECT_EQ(permissionsOf(scratch.path() / "work"), 0700U);
    EXPECT_TRUE(namesIn(scratch.path() / "work").empty());
    EXPECT_EQ(permissionsOf(scratch.path() / "stdout"), 0600U);
    EXPECT_EQ(permissionsOf(scratch.path() / "stderr"), 0600U);
  }
  EXPECT_TRUE(namesIn(area.path()).empty());
}

TEST(TaskScratch, InputFilesCanBeRunAndAreMadeOnce) {
  const TemporaryDirectory parent;
  ScratchArea area(parent.file(""), logger());
  TaskScratch scratch(area);
  EXPECT_TRUE(scratch.createInput("tool"));
  EXPECT_EQ(permissionsOf(scratch.path() / "work" / "tool"), 0700U);
  EXPECT_THROW(scratch.createInput("tool"), std::system_error);
}

void expectRefused(const TaskScratch& scratch, const std::string& name, const std::string& kind) {
  const std::string text = "The task's output \"" + name + "\" is a " + kind + "; only regular files can be returned.";
  EXPECT_IDENTIFIED(OutputNotAFile, text, scratch.outputStatus(name));
}

TEST(TaskScratch, OutputsAreRegularFilesOrMissing) {
  const TemporaryDirectory parent;
  ScratchArea area(parent.file(""), logger());
  const TaskScratch scratch(area);
  const fs::path work = scratch.path() / "work";
  std::ofstream(work / "made") << "12345";
  fs::create_directory(work / "folder");
  fs::create_symlink("/etc/passwd", work / "outside");
  fs::create_symlink("made", work / "inside");
  ASSERT_EQ(::mkfifo((work / "pipe").c_str(), 0600), 0);

  EXPECT_TRUE(scratch.outputStatus("made").exists);
  EXPECT_EQ(scratch.outputStatus("made").nbytes, 5U);
  EXPECT_FALSE(scratch.outputStatus("missing").exists);
  expectRefused(scratch, "folder", "directory");
  expectRefused(scratch, "outside", "symbolic link");
  expectRefused(scratch, "inside", "symbolic link");
  expectRefused(scratch, "pipe", "named pipe");
}

TEST(TaskScratch, OpeningAnOutputFollowsNoLinkAndDoesNotWaitOnAPipe) {
  const TemporaryDirectory parent;
  ScratchArea area(parent.file(""), logger());
  const TaskScratch scratch(area);
  const fs::path work = scratch.path() / "work";
  std::ofstream(work / "made") << "12345";
  fs::create_symlink("/etc/passwd", work / "outside");
  ASSERT_EQ(::mkfifo((work / "pipe").c_str(), 0600), 0);
  EXPECT_TRUE(scratch.openOutput("made"));
  EXPECT_THROW(scratch.openOutput("outside"), std::system_error);
  EXPECT_THROW(scratch.openOutput("pipe"), Exception<parallel::scheduler::OutputNotAFile>);
}

TEST(FileTransfer, CopiesExactlyWhatWasAskedAndSaysWhenTheFileIsShorter) {
  const TemporaryDirectory directory;
  const fs::path path = directory.file("data");
  std::string content(600'000, 'a');
  content += "end";
  std::ofstream(path, std::ios::binary) << content;
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string copied;
  FunctionalByteSink sink(
      [&](const std::byte* data, std::size_t n) { copied.append(reinterpret_cast<const char*>(data), n); });
  copyFile(file.get(), "the file", content.size(), sink);
  EXPECT_EQ(copied, content);
  copied.clear();
  copyFile(file.get(), "the file", 10, sink);
  EXPECT_EQ(copied, content.substr(0, 10));
  EXPECT_THAT(
      [&] { copyFile(file.get(), "the file", content.size() + 1, sink); },
      ThrowsMessage<std::runtime_error>("Reading the file: it became shorter, 600003 of 600004 bytes are left"));
}

TEST(FileTransfer, FullDiskNamesTheFile) {
  const UniqueFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
  FileSink sink(full.get(), "the input file \"x\"");
  const std::byte byte{1};
  EXPECT_THAT([&] { sink.write(&byte, 1); },
              ThrowsMessage<std::system_error>("Writing the input file \"x\": No space left on device"));
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

}  // namespace
}  // namespace parallel::scheduler
