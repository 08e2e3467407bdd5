#include "execution/FilePool.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "execution/testing/DescriptorLimit.h"
#include "transport/data/testing/TemporaryDirectory.h"

namespace parallel::execution {
namespace {

using spf::transport::testing::TemporaryDirectory;
using testing::DescriptorLimit;
using ::testing::ThrowsMessage;

class FilePoolTest : public ::testing::Test {
 protected:
  std::unique_ptr<FilePool::File> open(FilePool& pool, int number) {
    const auto path = directory_.file("file" + std::to_string(number));
    std::ofstream(path, std::ios::app).flush();
    return std::make_unique<FilePool::File>(pool, path, O_WRONLY | O_APPEND, "file " + std::to_string(number));
  }
  std::string contentOf(int number) const {
    std::ostringstream content;
    content << std::ifstream(directory_.file("file" + std::to_string(number))).rdbuf();
    return content.str();
  }

 private:
  TemporaryDirectory directory_;
};

void append(FilePool::File& file, char c) {
  file.use([c](int fd) { ASSERT_EQ(::write(fd, &c, 1), 1); });
}

TEST_F(FilePoolTest, ManyFilesAreWrittenInTurnsWithFewDescriptors) {
  constexpr int kFiles = 10;
  FilePool pool(3);
  std::vector<std::unique_ptr<FilePool::File>> files;
  for (int i = 0; i < kFiles; ++i)
    files.push_back(open(pool, i));
  {
    const DescriptorLimit limit(3);
    for (const char c : {'a', 'b', 'c'}) {
      for (const auto& file : files)
        append(*file, c);
    }
  }
  for (int i = 0; i < kFiles; ++i)
    EXPECT_EQ(contentOf(i), "abc") << i;
}

TEST_F(FilePoolTest, FileStaysOpenWhileNobodyNeedsItsDescriptor) {
  FilePool pool(1);
  const auto first = open(pool, 1);
  const auto second = open(pool, 2);
  append(*first, 'x');
  const DescriptorLimit limit(0);
  append(*first, 'y');
  EXPECT_NO_THROW(append(*second, 'z'));  // in the first one's place
}

TEST_F(FilePoolTest, PlaceOfAFileThatEndedOrCouldNotBeOpenedIsFree) {
  FilePool pool(1);
  { append(*open(pool, 1), 'x'); }
  FilePool::File missing(pool, "/no/such/file", O_RDONLY, "the file \"x\"");
  EXPECT_THAT([&] { missing.use([](int) {}); },
              ThrowsMessage<std::system_error>("Opening the file \"x\": No such file or directory"));
  EXPECT_THROW(open(pool, 2)->use([](int) { throw std::runtime_error("action"); }), std::runtime_error);
  append(*open(pool, 3), 'y');
  EXPECT_EQ(contentOf(3), "y");
}

TEST_F(FilePoolTest, NoMoreThanItsCapacityAreInUseAtOnce) {
  constexpr int kThreads = 8;
  FilePool pool(2);
  std::atomic<int> inUse{0};
  std::atomic<int> most{0};
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i)
      threads.emplace_back([&, file = open(pool, i)] {
        for (int round = 0; round < 200; ++round)
          file->use([&](int fd) {
            const int now = ++inUse;
            for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
            }
            EXPECT_EQ(::write(fd, "x", 1), 1);
            std::this_thread::yield();
            --inUse;
          });
      });
  }
  EXPECT_LE(most, 2);
  for (int i = 0; i < kThreads; ++i)
    EXPECT_EQ(contentOf(i).size(), 200U) << i;
}

}  // namespace
}  // namespace parallel::execution
