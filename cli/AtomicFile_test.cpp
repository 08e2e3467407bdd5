#include "cli/AtomicFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "cli/CliError.h"
#include "cli/testing/files.h"
#include "platform/files/testing/TemporaryDirectory.h"

namespace zks {
namespace {

using testing::HasSubstr;

class AtomicFiles : public testing::Test {
 protected:
  static void write(const AtomicFile& file, const std::string& text) { std::ofstream(file.temporaryPath()) << text; }

  std::string contents(const std::string& name) const { return readFile(directory_.path() + "/" + name); }

  std::size_t fileCount() const {
    const auto files = std::filesystem::directory_iterator(directory_.path());
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
  }

  files::testing::TemporaryDirectory directory_;
};

template <class Action>
std::string errorOf(const Action& action) {
  try {
    action();
  } catch (const CliError& error) {
    return error.what();
  }
  return "no error";
}

TEST_F(AtomicFiles, CommitPutsTheWholeFileInItsPlaceAndNothingElse) {
  AtomicFile file(directory_.path(), "out");
  write(file, "new");
  EXPECT_FALSE(std::filesystem::exists(file.path()));
  file.commit();
  EXPECT_EQ(contents("out"), "new");
  EXPECT_EQ(fileCount(), 1U);
}

TEST_F(AtomicFiles, CommitReplacesAnEarlierFile) {
  std::ofstream(directory_.path() + "/out") << "an older and longer text";
  AtomicFile file(directory_.path(), "out");
  write(file, "new");
  file.commit();
  EXPECT_EQ(contents("out"), "new");
}

TEST_F(AtomicFiles, WithoutCommitTheEarlierFileStaysAndTheNewOneGoes) {
  std::ofstream(directory_.path() + "/out") << "old";
  {
    const AtomicFile file(directory_.path(), "out");
    write(file, "half");
  }
  EXPECT_EQ(contents("out"), "old");
  EXPECT_EQ(fileCount(), 1U);
}

TEST_F(AtomicFiles, FileHasTheRightsOfAnyNewFile) {
  const mode_t mask = umask(0027);
  AtomicFile file(directory_.path(), "out");
  umask(mask);
  file.commit();
  struct stat status {};
  ASSERT_EQ(stat(file.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0640U);
}

TEST_F(AtomicFiles, DirectoryThatIsNotThereIsNamedWithTheReason) {
  const std::string missing = directory_.path() + "/none";
  EXPECT_THAT(errorOf([&] { AtomicFile(missing, "out"); }), HasSubstr("\"" + missing + "\": No such file"));
  EXPECT_THAT(errorOf([&] { checkDirectory(missing); }), HasSubstr("\"" + missing + "\": No such file"));
}

TEST_F(AtomicFiles, FileInPlaceOfTheDirectoryIsNamedWithTheReason) {
  const std::string path = directory_.path() + "/file";
  std::ofstream(path) << "x";
  EXPECT_THAT(errorOf([&] { AtomicFile(path, "out"); }), HasSubstr("\"" + path + "\": Not a directory"));
  EXPECT_THAT(errorOf([&] { checkDirectory(path); }), HasSubstr("not a directory"));
  EXPECT_EQ(errorOf([&] { checkDirectory(directory_.path()); }), "no error");
}

TEST_F(AtomicFiles, PlaceThatIsADirectoryIsAnErrorAndLeavesNothing) {
  std::filesystem::create_directory(directory_.path() + "/out");
  EXPECT_THAT(errorOf([&] { AtomicFile(directory_.path(), "out").commit(); }), HasSubstr("/out\": Is a directory"));
  EXPECT_EQ(fileCount(), 1U);
}

TEST_F(AtomicFiles, FileCutShortByALimitIsNotCommitted) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  std::string error;
  {
    AtomicFile file(directory_.path(), "out");
    const rlimit small{4096, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    write(file, std::string(5000, 'x'));
    error = errorOf([&] { file.commit(); });
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  }
  std::signal(SIGXFSZ, handler);
  EXPECT_THAT(error, HasSubstr("/out\": File too large"));
  EXPECT_EQ(fileCount(), 0U);
}

TEST_F(AtomicFiles, CheckingLeavesTheContentsAsTheyAre) {
  AtomicFile file(directory_.path(), "out");
  write(file, "text");
  file.checkWritable();
  file.commit();
  EXPECT_EQ(contents("out"), "text");
}

TEST_F(AtomicFiles, AllTemporaryFilesCanBeRemovedAtOnce) {
  const AtomicFile one(directory_.path(), "a");
  const AtomicFile two(directory_.path(), "b");
  EXPECT_EQ(fileCount(), 2U);
  removeAllTemporaryFiles();
  EXPECT_EQ(fileCount(), 0U);
}

}  // namespace
}  // namespace zks
