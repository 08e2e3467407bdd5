#include "cli/FileContents.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "cli/CliError.h"
#include "cli/testing/files.h"
#include "platform/files/testing/TemporaryDirectory.h"

namespace zks {
namespace {

class FileContentsTest : public testing::Test {
 protected:
  std::string path() const { return directory_.path() + "/file"; }
  static std::string textOf(const FileContents& file) {
    return {reinterpret_cast<const char*>(file.bytes().data()), file.bytes().size()};
  }

  files::testing::TemporaryDirectory directory_;
};

TEST_F(FileContentsTest, HoldsTheWholeFile) {
  for (const std::size_t nbytes : {0U, 1U, 4U << 20, (4U << 20) + 1}) {
    const std::string bytes(nbytes, 'x');
    writeFile(path(), bytes);
    EXPECT_TRUE(textOf(FileContents(path())) == bytes) << nbytes;
  }
}

TEST_F(FileContentsTest, StaysWhatItWasWhenTheFileIsCutShort) {
  const std::string bytes(1'000'000, 'x');
  writeFile(path(), bytes);
  const FileContents file(path());
  std::filesystem::resize_file(path(), 0);
  EXPECT_TRUE(textOf(file) == bytes);
}

TEST_F(FileContentsTest, PlaceThatIsNotAFileIsNamedWithTheReason) {
  for (const auto& [place, reason] : {std::pair{path(), "No such file"}, std::pair{directory_.path(), "a directory"},
                                      std::pair{std::string("/dev/null"), "not a regular file"}}) {
    try {
      const FileContents file(place);
      ADD_FAILURE() << place;
    } catch (const CliError& error) {
      EXPECT_THAT(error.what(), testing::AllOf(testing::HasSubstr(place), testing::HasSubstr(reason)));
    }
  }
}

}  // namespace
}  // namespace zks
