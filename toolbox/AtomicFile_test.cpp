#include "toolbox/AtomicFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "platform/files/testing/TemporaryDirectory.h"

namespace parallel::toolbox {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

class AtomicFiles : public ::testing::Test {
 protected:
  static void write(const AtomicFile& file, const std::string& text) { std::ofstream(file.temporaryPath()) << text; }

  std::string path(const std::string& name) const { return directory_.path() + "/" + name; }
  std::string contents(const std::string& name) const {
    std::ostringstream bytes;
    bytes << std::ifstream(path(name), std::ios::binary).rdbuf();
    return bytes.str();
  }

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
  } catch (const std::exception& error) {
    return error.what();
  }
  return "no error";
}

TEST_F(AtomicFiles, CommitPutsTheWholeFileInItsPlaceAndNothingElse) {
  AtomicFile file(path("out"));
  write(file, "new");
  EXPECT_FALSE(std::filesystem::exists(file.path()));
  file.commit();
  EXPECT_EQ(contents("out"), "new");
  EXPECT_EQ(fileCount(), 1U);
}

TEST_F(AtomicFiles, CommitReplacesAnEarlierFile) {
  std::ofstream(path("out")) << "an older and longer text";
  AtomicFile file(path("out"));
  write(file, "new");
  file.commit();
  EXPECT_EQ(contents("out"), "new");
}

TEST_F(AtomicFiles, WithoutCommitTheEarlierFileStaysAndTheNewOneGoes) {
  std::ofstream(path("out")) << "old";
  {
    const AtomicFile file(path("out"));
    write(file, "half");
  }
  EXPECT_EQ(contents("out"), "old");
  EXPECT_EQ(fileCount(), 1U);
}

TEST_F(AtomicFiles, FileHasTheRightsOfAnyNewFile) {
  const mode_t mask = umask(0027);
  AtomicFile file(path("out"));
  umask(mask);
  file.commit();
  struct stat status {};
  ASSERT_EQ(stat(file.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0640U);
}

TEST_F(AtomicFiles, DirectoryThatIsNotThereIsNamedWithTheReason) {
  const std::string missing = path("none");
  EXPECT_THAT(errorOf([&] { AtomicFile(missing + "/out"); }), HasSubstr("\"" + missing + "\": No such file"));
  EXPECT_THAT(errorOf([&] { checkDirectory(missing); }), HasSubstr("\"" + missing + "\": No such file"));
}

TEST_F(AtomicFiles, FileInPlaceOfTheDirectoryIsNamedWithTheReason) {
  const std::string place = path("file");
  std::ofstream(place) << "x";
  EXPECT_THAT(errorOf([&] { AtomicFile(place + "/out"); }), HasSubstr("\"" + place + "\": Not a directory"));
  EXPECT_THAT(errorOf([&] { checkDirectory(place); }), HasSubstr("not a directory"));
  EXPECT_EQ(errorOf([&] { checkDirectory(directory_.path()); }), "no error");
}

TEST_F(AtomicFiles, PlaceThatIsADirectoryIsAnErrorAndLeavesNothing) {
  std::filesystem::create_directory(path("out"));
  EXPECT_THAT(errorOf([&] { AtomicFile(path("out")); }), HasSubstr("/out\" cannot be written: it is a directory"));
  EXPECT_EQ(fileCount(), 1U);
}

TEST_F(AtomicFiles, FileCutShortByALimitIsNotCommitted) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  std::string error;
  {
    AtomicFile file(path("out"));
    const rlimit small{4096, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    write(file, std::string(5000, 'x'));
    error = errorOf([&] { file.commit(); });
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  }
  std::signal(SIGXFSZ, handler);
  EXPECT_THAT(error, HasSubstr("/out\" cannot be written: File too large"));
  EXPECT_EQ(fileCount(), 0U);
}

TEST_F(AtomicFiles, WriterThatFailsForAReasonOfItsOwnIsHeardAndTheContentsStayAsTheyAre) {
  AtomicFile file(path("out"));
  EXPECT_THAT(
      [&] {
        file.write([&](const std::string&) {
          write(file, "text");
          throw std::runtime_error("tired");
        });
      },
      ThrowsMessage<std::runtime_error>("tired"));
  file.commit();
  EXPECT_EQ(contents("out"), "text");
}

TEST_F(AtomicFiles, WriterThatFailsWithTheFileGetsTheSystemsReason) {
  AtomicFile file(path("out"));
  const auto removesIt = [](const std::string& temporary) {
    std::filesystem::remove(temporary);
    throw std::runtime_error("lost");
  };
  EXPECT_THAT(errorOf([&] { file.write(removesIt); }), HasSubstr("/out\" cannot be written: No such file"));
}

TEST_F(AtomicFiles, PlaceThatIsNoRegularFileIsLeftAlone) {
  const std::string place = path("pipe");
  ASSERT_EQ(mkfifo(place.c_str(), 0600), 0);
  EXPECT_THAT(errorOf([&] { AtomicFile{place}; }), HasSubstr("not a regular file"));
  EXPECT_THAT(errorOf([&] { checkWritablePlace(place); }), HasSubstr("not a regular file"));
  EXPECT_TRUE(std::filesystem::is_fifo(place));
  for (const char* none : {"", "/", "x/"})
    EXPECT_THAT(errorOf([&] { checkWritablePlace(none); }), HasSubstr("cannot be written: it names no file")) << none;
}

TEST_F(AtomicFiles, LinkStaysAndItsFileIsReplaced) {
  std::ofstream(path("file")) << "old";
  std::filesystem::create_symlink("file", path("link"));
  AtomicFile file(path("link"));
  write(file, "new");
  file.commit();
  EXPECT_TRUE(std::filesystem::is_symlink(path("link")));
  EXPECT_EQ(contents("file"), "new");
}

TEST_F(AtomicFiles, AllTemporaryFilesCanBeRemovedAtOnce) {
  const AtomicFile one(path("a"));
  const AtomicFile two(path("b"));
  EXPECT_EQ(fileCount(), 2U);
  removeAllTemporaryFiles();
  EXPECT_EQ(fileCount(), 0U);
}

}  // namespace
}  // namespace parallel::toolbox
