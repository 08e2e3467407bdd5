#include "execution/ScratchArea.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include "execution/FileTransfer.h"
#include "execution/TaskScratch.h"
#include "execution/testing/DescriptorLimit.h"
#include "platform/logging/createQLVLogger.h"
#include "transport/data/testing/TemporaryDirectory.h"
#include "transport/streams/FunctionalByteSink.h"

namespace parallel::execution {
namespace {

namespace fs = std::filesystem;
using spf::transport::FunctionalByteSink;
using spf::transport::testing::TemporaryDirectory;
using ::testing::ThrowsMessage;

ScratchArea::Logger& logger() {
  return logging::createQLVLogger("zks.execution.test");
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

TEST(ScratchArea, DirectoryThatWasTakenAwayIsMadeAnew) {
  const TemporaryDirectory parent;
  ScratchArea area(parent.file(""), logger());
  const fs::path first = area.path();
  fs::remove_all(first);
  const fs::path task = area.makeDirectory();
  EXPECT_EQ(task.parent_path(), area.path());
  EXPECT_NE(area.path(), first);
  EXPECT_EQ(permissionsOf(area.path()), 0700U);
  fs::remove(task);
}

// As somebody else in /tmp could put it there, to watch over our files.
TEST(ScratchArea, ForeignDirectoryInItsPlaceIsNotUsed) {
  const TemporaryDirectory parent;
  fs::path foreign;
  {
    ScratchArea area(parent.file(""), logger());
    foreign = area.path();
    fs::remove_all(foreign);
    fs::create_directory(foreign);
    fs::remove(area.makeDirectory());
    EXPECT_TRUE(fs::is_empty(foreign));
  }
  EXPECT_TRUE(fs::exists(foreign));
}

TEST(TaskScratch, HasAPrivateWorkDirectoryAndTheCapturesBesideIt) {
  const TemporaryDirectory parent;
  ScratchArea area(parent.file(""), logger());
  {
    const TaskScratch scratch(area);
    const TaskDescriptors opened = scratch.open(false);
    EXPECT_TRUE(opened.directory && opened.output && opened.error && !opened.input);
    EXPECT_EQ(permissionsOf(scratch.path()), 0700U);
    EXPECT_EQ(permissionsOf(scratch.path() / "work"), 0700U);
    EXPECT_TRUE(namesIn(scratch.path() / "work").empty());
    EXPECT_EQ(permissionsOf(scratch.standardOutput()), 0600U);
    EXPECT_EQ(permissionsOf(scratch.standardError()), 0600U);
  }
  EXPECT_TRUE(namesIn(area.path()).empty());
}

TEST(TaskScratch, WaitingTaskHoldsNoDescriptor) {
  const TemporaryDirectory parent;
  ScratchArea area(parent.file(""), logger());
  const testing::DescriptorLimit limit(2);
  const TaskScratch first(area);
  const TaskScratch second(area);
  const TaskScratch third(area);
  first.createInput("a", 0700);
  first.createInput("b", 0700);
  first.createInput("c", 0700);
  EXPECT_THROW(third.open(false), std::system_error);  // the limit holds
}

TEST(TaskScratch, InputFilesCanBeRunAndAreMadeOnce) {
  const TemporaryDirectory parent;
  ScratchArea area(parent.file(""), logger());
  const TaskScratch scratch(area);
  EXPECT_EQ(permissionsOf(scratch.createInput("tool", 0700)), 0700U);
  EXPECT_THROW(scratch.createInput("tool", 0700), std::system_error);
  EXPECT_THROW(scratch.createInput("tool/x", 0700), std::system_error);
}

void expectUnusable(const fs::path& path, const std::string& problem) {
  const OutputStatus status = fileStatus(path);
  EXPECT_FALSE(status.isThere);
  EXPECT_EQ(status.nbytes, 0U);
  EXPECT_EQ(status.problem, problem) << path;
}

TEST(TaskScratch, OutputsAreRegularFilesOrMissing) {
  const TemporaryDirectory work;
  std::ofstream(work.file("made")) << "12345";
  fs::create_directory(work.file("folder"));
  fs::create_symlink("/etc/passwd", work.file("outside"));
  fs::create_symlink("made", work.file("inside"));
  ASSERT_EQ(::mkfifo(work.file("pipe").c_str(), 0600), 0);

  EXPECT_TRUE(fileStatus(work.file("made")).isThere);
  EXPECT_EQ(fileStatus(work.file("made")).nbytes, 5U);
  expectUnusable(work.file("missing"), "");
  expectUnusable(work.file("folder"), "it is a directory, and only regular files can be returned");
  expectUnusable(work.file("outside"), "it is a symbolic link, and only regular files can be returned");
  expectUnusable(work.file("inside"), "it is a symbolic link, and only regular files can be returned");
  expectUnusable(work.file("pipe"), "it is a named pipe, and only regular files can be returned");
}

TEST(FileTransfer, CopiesExactlyWhatWasAskedAndSaysWhenTheFileIsShorter) {
  const TemporaryDirectory directory;
  const fs::path path = directory.file("data");
  std::string content(600'000, 'a');
  content += "end";
  std::ofstream(path, std::ios::binary) << content;
  FilePool pool(1);
  FilePool::File file(pool, path, O_RDONLY, "the file");
  std::string copied;
  FunctionalByteSink sink(
      [&](const std::byte* data, std::size_t n) { copied.append(reinterpret_cast<const char*>(data), n); });
  copyFile(file, content.size(), sink);
  EXPECT_EQ(copied, content);
  copied.clear();
  copyFile(file, 10, sink);
  EXPECT_EQ(copied, content.substr(0, 10));
  EXPECT_THAT(
      [&] { copyFile(file, content.size() + 1, sink); },
      ThrowsMessage<std::runtime_error>("Reading the file: it became shorter, 600003 of 600004 bytes are left"));
}

TEST(FileTransfer, FullDiskNamesTheFile) {
  FilePool pool(1);
  FilePool::File full(pool, "/dev/full", O_WRONLY, "the input file \"x\"");
  FileSink sink(full);
  const std::byte byte{1};
  EXPECT_THAT([&] { sink.write(&byte, 1); },
              ThrowsMessage<std::system_error>("Writing the input file \"x\": No space left on device"));
}

}  // namespace
}  // namespace parallel::execution
