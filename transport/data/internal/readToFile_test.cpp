#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "transport/data/DeserializableData.h"
#include "transport/data/testing/LogCapture.h"
#include "transport/data/testing/TemporaryDirectory.h"
#include "transport/data/testing/streams.h"

namespace parallel::spf::transport {
namespace {

using testing::Bytes;
using testing::bytesOf;
using testing::PiecewiseByteStream;

class DeserializeToFile : public ::testing::Test {
 protected:
  static void read(const Bytes& content, const std::filesystem::path& path, std::size_t pieceBytes = 16384) {
    DeserializableData item(std::make_shared<PiecewiseByteStream>(content, pieceBytes));
    item.deserializeToFile(path.u16string());
  }

  static void expectError(const std::u16string& path) {
    DeserializableData item(std::make_shared<PiecewiseByteStream>(bytesOf("abc")));
    const testing::LogCapture log(16);
    EXPECT_THROW(item.deserializeToFile(path), Exception<cluster::DeserializeToFileError>);
    EXPECT_EQ(log.texts().size(), 1U);
  }

  testing::TemporaryDirectory directory_;
};

TEST_F(DeserializeToFile, ContentArrivesWholeInPiecesOfAnySize) {
  for (const std::size_t nbytes : {0, 1, 1023, 1024, 8191, 8192, 70000}) {
    for (const std::size_t piece : {1, 1000, 16384}) {
      SCOPED_TRACE(nbytes);
      const Bytes content = testing::patternOf(nbytes);
      read(content, directory_.file("out"), piece);
      EXPECT_EQ(testing::readFile(directory_.file("out")), content);
    }
  }
}

TEST_F(DeserializeToFile, ExistingFileIsReplaced) {
  directory_.write("out", bytesOf("a longer content than the new one"));
  read(bytesOf("new"), directory_.file("out"));
  EXPECT_EQ(testing::readFile(directory_.file("out")), bytesOf("new"));
}

TEST_F(DeserializeToFile, ItemWithoutBytesMakesAnEmptyFile) {
  read({}, directory_.file("out"));
  EXPECT_TRUE(std::filesystem::exists(directory_.file("out")));
  EXPECT_EQ(std::filesystem::file_size(directory_.file("out")), 0U);
}

TEST_F(DeserializeToFile, EveryByteValueArrivesAsItIs) {
  Bytes all;
  for (int value = 0; value < 256; ++value)
    all.push_back(static_cast<std::byte>(value));
  read(all, directory_.file("out"));
  EXPECT_EQ(testing::readFile(directory_.file("out")), all);
}

TEST_F(DeserializeToFile, NameOutsideAsciiIsMade) {
  const std::filesystem::path path = directory_.file("Größe \xF0\x9F\x98\x80.dat");
  read(bytesOf("abc"), path);
  EXPECT_EQ(testing::readFile(path), bytesOf("abc"));
}

TEST_F(DeserializeToFile, DirectoryThatDoesNotExistFails) {
  expectError(directory_.file("missing/out").u16string());
  EXPECT_FALSE(std::filesystem::exists(directory_.file("missing")));
}

TEST_F(DeserializeToFile, DirectoryInTheFilesPlaceFails) {
  std::filesystem::create_directory(directory_.file("folder"));
  expectError(directory_.file("folder").u16string());
}

TEST_F(DeserializeToFile, NameThatCannotBeConvertedFails) {
  expectError(u"");
  expectError(u"a\xD800z");
  expectError(std::u16string(u"a\0b", 3));
}

TEST_F(DeserializeToFile, WriteThatFailsFails) {
  // Larger than any buffer, so that the device's refusal is met while writing.
  DeserializableData item(std::make_shared<PiecewiseByteStream>(Bytes(1000000), 16384));
  EXPECT_THROW(item.deserializeToFile(u"/dev/full"), Exception<cluster::DeserializeToFileError>);
}

TEST_F(DeserializeToFile, ErrorAtTheCloseIsNotReported) {
  // Small enough to wait in the file's buffer until the end.
  DeserializableData item(std::make_shared<PiecewiseByteStream>(Bytes(10)));
  EXPECT_NO_THROW(item.deserializeToFile(u"/dev/full"));
}

TEST_F(DeserializeToFile, StreamThatFailsMidwayLeavesWhatWasWritten) {
  struct BreakingStream : ByteStream {
    std::size_t read(ByteSink& sink, std::size_t) override {
      const Bytes begun = bytesOf("half of");
      sink.write(begun.data(), begun.size());
      throw std::runtime_error("the cable is cut");
    }
  };
  DeserializableData item(std::make_shared<BreakingStream>());
  EXPECT_THROW(item.deserializeToFile(directory_.file("out").u16string()), Exception<cluster::DeserializeToFileError>);
  EXPECT_EQ(testing::readFile(directory_.file("out")), bytesOf("half of"));
}

}  // namespace
}  // namespace parallel::spf::transport
