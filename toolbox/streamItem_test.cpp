#include "toolbox/streamItem.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "platform/files/testing/TemporaryDirectory.h"
#include "transport/streams/FunctionalByteSink.h"

namespace parallel::toolbox {
namespace {

using testing::HasSubstr;

std::string contentOf(const Item& item) {
  std::string content;
  spf::transport::FunctionalByteSink sink(
      [&](const std::byte* data, std::size_t n) { content.append(reinterpret_cast<const char*>(data), n); });
  item.data->serialize(sink);
  return content;
}

::files::UniqueFd opened(const std::string& path) {
  return ::files::UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

TEST(StreamItem, HoldsWhatAPipeGivesUpToItsEnd) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  const std::string content(300'000, 'x');
  std::jthread writer([&content, writing = ::files::UniqueFd(ends[1])] {
    for (std::size_t done = 0; done < content.size();)
      done += static_cast<std::size_t>(::write(writing.get(), content.data() + done, content.size() - done));
  });
  EXPECT_TRUE(contentOf(streamItem(::files::UniqueFd(ends[0]), "a pipe")) == content);
}

TEST(StreamItem, PipeThatDoesNotBlockIsWaitedFor) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
  const Item item = streamItem(::files::UniqueFd(ends[0]), "a pipe");
  std::string content;
  std::jthread writer;
  spf::transport::FunctionalByteSink sink([&](const std::byte* data, std::size_t n) {
    content.append(reinterpret_cast<const char*>(data), n);
    if (!writer.joinable())  // the reader finds nothing for now
      writer = std::jthread([writing = ::files::UniqueFd(ends[1])] { EXPECT_EQ(::write(writing.get(), "b", 1), 1); });
  });
  ASSERT_EQ(::write(ends[1], "a", 1), 1);
  item.data->serialize(sink);
  EXPECT_EQ(content, "ab");
}

TEST(StreamItem, NameIsInTheError) {
  const Item item = streamItem(opened("/"), "standard input");
  try {
    contentOf(item);
    FAIL() << "a directory was read";
  } catch (const std::exception& error) {
    EXPECT_STREQ(error.what(), "The file \"standard input\" cannot be sent: Is a directory.");
  }
}

TEST(FileItem, FileThatDoesNotKnowItsSizeIsReadToItsEnd) {
  for (const char* path : {"/proc/version", "/proc/sys/kernel/ostype"}) {
    std::ostringstream expected;
    expected << std::ifstream(path).rdbuf();
    ASSERT_NE(expected.str(), "");
    EXPECT_EQ(contentOf(fileItem(path)), expected.str()) << path;
  }
}

TEST(FileItem, EmptyFileIsEmpty) {
  const ::files::testing::TemporaryDirectory directory;
  std::ofstream(directory.file("empty")).close();
  EXPECT_EQ(contentOf(fileItem(directory.file("empty").string())), "");
}

}  // namespace
}  // namespace parallel::toolbox
