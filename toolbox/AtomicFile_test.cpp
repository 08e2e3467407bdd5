#include "toolbox/AtomicFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/files/testing/TemporaryDirectory.h"
#include "platform/interrupt/interpreterContext.h"
#include "platform/interrupt/utInterruptState.h"

namespace parallel::toolbox {
namespace {

using ::testing::HasSubstr;

class AtomicFiles : public ::testing::Test {
 protected:
  static void write(AtomicFile& file, const std::string& text) {
    file.write(reinterpret_cast<const std::byte*>(text.data()), text.size());
  }

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

// Of the file's bytes, those that the system keeps in memory.
std::size_t bytesInMemory(const std::string& path) {
  const files::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const auto nbytes = static_cast<std::size_t>(std::filesystem::file_size(path));
  const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  void* const memory = ::mmap(nullptr, nbytes, PROT_READ, MAP_SHARED, file.get(), 0);
  if (memory == MAP_FAILED)
    throw std::runtime_error("mmap");
  std::vector<unsigned char> pages((nbytes + page - 1) / page);
  const bool isKnown = ::mincore(memory, nbytes, pages.data()) == 0;
  ::munmap(memory, nbytes);
  if (!isKnown)
    throw std::runtime_error("mincore");
  return page * static_cast<std::size_t>(std::count_if(pages.begin(), pages.end(), [](auto in) { return in & 1U; }));
}

TEST_F(AtomicFiles, OfALargeFileOnlyTheEndStaysInMemory) {
  constexpr std::size_t kMebibyte = std::size_t{1} << 20;
  struct statfs system {};
  ASSERT_EQ(::statfs(directory_.path().c_str(), &system), 0);
  if (system.f_type == TMPFS_MAGIC)
    GTEST_SKIP() << "files of this file system are nowhere but in memory";
  AtomicFile file(path("out"));
  const std::string piece(kMebibyte, 'x');
  for (int i = 0; i < 128; ++i)
    write(file, piece);
  file.commit();
  EXPECT_LE(bytesInMemory(path("out")), 80 * kMebibyte);
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
    AtomicFile file(path("out"));
    write(file, "half");
    EXPECT_EQ(fileCount(), 1U) << "until it is whole the new one has no name";
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
    error = errorOf([&] {
      write(file, std::string(5000, 'x'));
      file.commit();
    });
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  }
  std::signal(SIGXFSZ, handler);
  EXPECT_THAT(error, HasSubstr("/out\" cannot be written: File too large"));
  EXPECT_EQ(fileCount(), 0U);
}

TEST_F(AtomicFiles, BytesArriveInOrderInWritesOfEverySize) {
  std::string all;
  AtomicFile file(path("out"));
  for (const std::size_t nbytes : {std::size_t{0}, std::size_t{1}, std::size_t{262'143}, std::size_t{262'144},
                                   std::size_t{262'145}, std::size_t{9'000'001}, std::size_t{3}}) {
    std::string piece(nbytes, '\0');
    for (char& byte : piece)
      byte = static_cast<char>(all.size() * 31 + static_cast<std::size_t>(&byte - piece.data()) / 7);
    write(file, piece);
    all += piece;
  }
  file.commit();
  EXPECT_TRUE(contents("out") == all);
}

TEST_F(AtomicFiles, PendingInterruptEndsTheWritingAndNothingIsLeft) {
  const foundation::usm::InterpreterContext context;
  {
    AtomicFile file(path("out"));
    write(file, "text");
    utInterruptState::request();
    EXPECT_THROW(file.commit(), Corvane::System::InterruptException);
  }
  EXPECT_EQ(fileCount(), 0U);
}

// --- What replaces a file ---

class ReplacedFile : public AtomicFiles {
 protected:
  void SetUp() override { std::ofstream(path("out")) << "old"; }

  struct stat replace() const {
    AtomicFile file(path("out"));
    write(file, "new");
    file.commit();
    EXPECT_EQ(contents("out"), "new");
    return status();
  }
  struct stat status() const {
    struct stat status {};
    EXPECT_EQ(stat(path("out").c_str(), &status), 0);
    return status;
  }
};

TEST_F(ReplacedFile, HandsOnItsPermissions) {
  for (const mode_t mode : {0600U, 0640U, 0444U, 0755U}) {
    ASSERT_EQ(chmod(path("out").c_str(), mode), 0);
    EXPECT_EQ(replace().st_mode & 07777U, mode);
  }
}

TEST_F(ReplacedFile, DoesNotHandOnTheRightToRunAsItsOwner) {
  ASSERT_EQ(chmod(path("out").c_str(), 04755), 0);
  EXPECT_EQ(replace().st_mode & 07777U, 0755U);
}

TEST_F(ReplacedFile, HandsOnTheAttributesOfItsUser) {
  if (setxattr(path("out").c_str(), "user.origin", "mars", 4, 0) != 0)
    GTEST_SKIP() << "this file system has no such attributes";
  replace();
  char value[5] = {};
  EXPECT_EQ(getxattr(path("out").c_str(), "user.origin", value, 4), 4);
  EXPECT_STREQ(value, "mars");
}

TEST_F(ReplacedFile, HandsOnItsOwnerAndGroupWhereTheUserMayGiveThemAway) {
  if (chown(path("out").c_str(), 12345, 23456) != 0)
    GTEST_SKIP() << "only the super-user gives files away";
  const struct stat status = replace();
  EXPECT_EQ(status.st_uid, 12345U);
  EXPECT_EQ(status.st_gid, 23456U);
}

TEST_F(AtomicFiles, ExecutableFileMayBeRunByWhoeverMayReadIt) {
  const mode_t mask = umask(0027);
  AtomicFile file(path("out"));
  umask(mask);
  file.makeExecutable();
  file.commit();
  struct stat status {};
  ASSERT_EQ(stat(file.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0750U);
}

TEST_F(AtomicFiles, WriterFillsAFileThatAppearsWhenItEnds) {
  writeFile(path("out"), [&](spf::transport::ByteSink& sink) {
    sink.write(reinterpret_cast<const std::byte*>("text"), 4);
    EXPECT_EQ(fileCount(), 0U);
  });
  EXPECT_EQ(contents("out"), "text");
  EXPECT_THROW(writeFile(path("out"), [](spf::transport::ByteSink&) { throw std::runtime_error("tired"); }),
               std::runtime_error);
  EXPECT_EQ(contents("out"), "text");
}

TEST_F(AtomicFiles, DeviceIsWrittenToAsItIs) {
  const auto writer = [](spf::transport::ByteSink& sink) { sink.write(reinterpret_cast<const std::byte*>("x"), 1); };
  writeFile("/dev/null", writer);
  EXPECT_THAT(errorOf([&] { writeFile("/dev/full", writer); }),
              HasSubstr("\"/dev/full\" cannot be written: No space left on device"));
}

TEST_F(AtomicFiles, PlaceThatIsNotARegularFileIsLeftAlone) {
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

}  // namespace
}  // namespace parallel::toolbox
