#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <ios>
#include <string>
#include <vector>

#include "platform/errors/IException.h"
#include "transport/data/SerializableData.h"
#include "transport/data/testing/LogCapture.h"
#include "transport/data/testing/RecordingByteSink.h"
#include "transport/data/testing/TemporaryDirectory.h"
#include "transport/data/testing/arrays.h"

namespace parallel::spf::transport {
namespace {

using testing::Bytes;
using testing::bytesOf;
using testing::LogCapture;
using testing::RecordingByteSink;
using Sizes = std::vector<std::size_t>;

class FileItem : public ::testing::Test {
 protected:
  static std::shared_ptr<SerializableData> itemOf(const std::filesystem::path& path) {
    return SerializableData::createFile(testing::textOf(path));
  }

  static testing::Recording serialized(const std::filesystem::path& path) { return testing::serialized(*itemOf(path)); }

  testing::TemporaryDirectory directory_;
};

// How many of this process's open files are that one.
std::size_t timesOpen(const std::filesystem::path& path) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // the iterator's own descriptor
    if (std::filesystem::read_symlink(entry.path(), gone) == path)
      ++count;
  }
  return count;
}

TEST_F(FileItem, WritesChunksOf64KiBThenNothing) {
  const std::vector<std::pair<std::size_t, Sizes>> table = {
      {0, {0}},
      {1, {1, 0}},
      {65535, {65535, 0}},
      {65536, {65536, 0}},
      {65537, {65536, 1, 0}},
      {131072, {65536, 65536, 0}},
      {200000, {65536, 65536, 65536, 3392, 0}},
  };
  for (const auto& [nbytes, sizes] : table) {
    SCOPED_TRACE(nbytes);
    const Bytes content = testing::patternOf(nbytes);
    const std::filesystem::path path = directory_.write("data", content);
    const testing::Recording sink = serialized(path);
    EXPECT_EQ(sink.bytes, content);
    EXPECT_EQ(sink.sizes, sizes);
    EXPECT_EQ(timesOpen(path), 0U);
  }
}

TEST_F(FileItem, EveryByteValueGoesOutAsItIs) {
  Bytes all;
  for (int value = 0; value < 256; ++value)
    all.push_back(static_cast<std::byte>(value));
  EXPECT_EQ(serialized(directory_.write("all", all)).bytes, all);
}

TEST_F(FileItem, NameOutsideAsciiIsFound) {
  const Bytes content = bytesOf("content");
  const std::filesystem::path path = directory_.write("Größe \xF0\x9F\x98\x80.dat", content);
  EXPECT_EQ(serialized(path).bytes, content);
}

TEST_F(FileItem, FileThatGrowsIsReadToItsRealEndInChunksOfItsFirstSize) {
  const std::filesystem::path path = directory_.write("growing", bytesOf("0123456789"));
  std::ofstream growth(path, std::ios::binary | std::ios::app);
  struct GrowingSink : RecordingByteSink {
    std::function<void()> afterFirst;
    void write(const std::byte* data, std::size_t nbytes) override {
      RecordingByteSink::write(data, nbytes);
      if (sizes.size() == 1)
        afterFirst();
    }
  } sink;
  sink.afterFirst = [&] { growth << "abcdefghijklmno" << std::flush; };
  itemOf(path)->serialize(sink);
  EXPECT_EQ(sink.bytes, bytesOf("0123456789abcdefghijklmno"));
  EXPECT_EQ(sink.sizes, (Sizes{10, 10, 5, 0}));
}

TEST_F(FileItem, IsReadAgainAtEverySerialization) {
  const std::filesystem::path path = directory_.write("data", bytesOf("first"));
  const auto item = itemOf(path);
  RecordingByteSink sink;
  item->serialize(sink);
  directory_.write("data", bytesOf("second"));
  item->serialize(sink);
  EXPECT_EQ(sink.bytes, bytesOf("firstsecond"));
}

TEST_F(FileItem, MissingFileThrowsTheStreamsFailureWhenSerializedAndLogsIt) {
  const std::filesystem::path path = directory_.file("missing");
  const auto item = itemOf(path);
  const LogCapture log;
  RecordingByteSink sink;
  EXPECT_THROW(item->serialize(sink), std::ios_base::failure);
  EXPECT_TRUE(sink.sizes.empty());

  const auto records = log.records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].level, 256U);
  EXPECT_EQ(records[0].text, "Error caught while streaming file to ByteSink");
  EXPECT_EQ(records[1].level, 16U);
  EXPECT_EQ(records[1].text.rfind("Exception caught: ", 0), 0U);
  for (const auto& record : records)
    EXPECT_EQ(record.text.find(path.string()), std::string::npos) << "the file's name is in the log";
}

TEST_F(FileItem, EachRecordNeedsItsLevel) {
  const auto item = itemOf(directory_.file("missing"));
  RecordingByteSink sink;
  {
    const LogCapture log(256);
    EXPECT_ANY_THROW(item->serialize(sink));
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"Error caught while streaming file to ByteSink"}));
  }
  {
    const LogCapture log(16);
    EXPECT_ANY_THROW(item->serialize(sink));
    EXPECT_EQ(log.texts().size(), 1U);
  }
  const LogCapture log(~(256U | 16U));
  EXPECT_ANY_THROW(item->serialize(sink));
  EXPECT_TRUE(log.records().empty());
}

TEST_F(FileItem, DirectoryThrowsTheStreamsFailure) {
  RecordingByteSink sink;
  std::filesystem::create_directory(directory_.file("folder"));
  EXPECT_THROW(itemOf(directory_.file("folder"))->serialize(sink), std::ios_base::failure);
  EXPECT_TRUE(sink.bytes.empty());
}

// It has no size and no beginning to go back to.
TEST_F(FileItem, PipeThrowsTheStreamsFailure) {
  const std::filesystem::path path = directory_.file("pipe");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const int writer = ::open(path.c_str(), O_RDWR | O_CLOEXEC);  // or the item would wait for one
  ASSERT_GE(writer, 0);
  RecordingByteSink sink;
  EXPECT_THROW(itemOf(path)->serialize(sink), std::ios_base::failure);
  EXPECT_TRUE(sink.sizes.empty());
  ::close(writer);
}

TEST_F(FileItem, ArrayWithoutTextThrowsTheHostsErrorAndLogsIt) {
  const auto item = SerializableData::createFile(qxCreateScalar(1));
  const LogCapture log;
  RecordingByteSink sink;
  try {
    item->serialize(sink);
    FAIL() << "a number names no file";
  } catch (const IException& error) {
    EXPECT_EQ(error.identifier(), "host:array:WrongClass");
  }
  EXPECT_EQ(log.records().size(), 2U);
}

void expectUnusable(const std::u16string& name, ByteSink& sink) {
  try {
    SerializableData::createFile(qxCreateString(name))->serialize(sink);
    FAIL() << "the name was taken";
  } catch (const IException& error) {
    EXPECT_EQ(error.identifier(), "host:files:PathNotConvertible");
  }
}

TEST_F(FileItem, UnusableNameThrowsTheHostsErrorAndLogsItWithoutTheName) {
  const LogCapture log;
  RecordingByteSink sink;
  for (const char16_t unusable : {char16_t{0}, char16_t{0xD800}}) {
    std::u16string name = u"secret/name";
    name[6] = unusable;
    expectUnusable(name, sink);
  }
  expectUnusable(u"", sink);
  const std::vector<std::string> texts = log.texts();
  EXPECT_EQ(texts.size(), 6U);
  for (const std::string& text : texts)
    EXPECT_EQ(text.find("secret"), std::string::npos) << text;
}

TEST_F(FileItem, SinkThatFailsAtAnyWriteGetsItsOwnErrorBackWithTheFileClosedBeforeTheLog) {
  const std::filesystem::path path = directory_.write("data", testing::patternOf(200000));
  const auto item = itemOf(path);
  for (std::size_t failing = 1;; ++failing) {
    ASSERT_LE(failing, 6U);
    std::vector<std::size_t> openWhileLogging;
    const logging::SinkHandle handle([&](const logging::LogRecord&) { openWhileLogging.push_back(timesOpen(path)); });
    const LogCapture log;
    RecordingByteSink sink(failing);
    bool failed = false;
    try {
      item->serialize(sink);
    } catch (const testing::SinkFull&) {
      failed = true;
    }
    EXPECT_EQ(timesOpen(path), 0U);
    if (!failed) {
      EXPECT_EQ(failing, 6U) << "five writes, each of which was made to fail";
      EXPECT_TRUE(openWhileLogging.empty());
      break;
    }
    EXPECT_EQ(openWhileLogging, (std::vector<std::size_t>{0, 0}));
    EXPECT_EQ(sink.sizes.size(), failing - 1);
  }
}

TEST_F(FileItem, ErrorOfAnyTypeIsThrownOnAsItIs) {
  struct IntSink : ByteSink {
    void write(const std::byte*, std::size_t) override { throw 42; }
  } sink;
  const auto item = itemOf(directory_.write("data", bytesOf("x")));
  try {
    item->serialize(sink);
    FAIL() << "the sink throws";
  } catch (int value) {
    EXPECT_EQ(value, 42);
  }
}

TEST_F(FileItem, SizeHintIsTheFilesSizeAndZeroWithoutOne) {
  EXPECT_EQ(itemOf(directory_.write("data", Bytes(70000)))->serializedSizeHint(), 70000U);
  EXPECT_EQ(itemOf(directory_.file("missing"))->serializedSizeHint(), 0U);
  std::filesystem::create_directory(directory_.file("folder"));
  EXPECT_EQ(itemOf(directory_.file("folder"))->serializedSizeHint(), 0U);
  EXPECT_EQ(SerializableData::createFile(qxCreateScalar(1))->serializedSizeHint(), 0U);
}

}  // namespace
}  // namespace parallel::spf::transport
