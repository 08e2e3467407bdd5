#include "worker/InputCache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <future>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "platform/files/testing/TemporaryDirectory.h"

namespace parallel::worker {
namespace {

using digest::Digest;

class InputCacheTest : public testing::Test {
 protected:
  InputCache::Fetch writing(const std::string& bytes) {
    return [this, bytes](const std::string& path) {
      ++fetches_;
      std::ofstream(path, std::ios::binary) << bytes;
    };
  }
  static std::string read(const std::filesystem::path& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
  }
  std::unique_ptr<InputCache::Use> use(InputCache& cache, const std::string& bytes) {
    return cache.use(Digest::of(bytes), bytes.size(), writing(bytes));
  }

  files::testing::TemporaryDirectory files_;
  std::filesystem::path folder_ = files_.file("cache");
  std::atomic<int> fetches_{0};
};

TEST_F(InputCacheTest, ABlobIsFetchedOnce) {
  InputCache cache(folder_, 100);
  EXPECT_EQ(read(use(cache, "bytes")->path()), "bytes");
  EXPECT_EQ(read(use(cache, "bytes")->path()), "bytes");
  EXPECT_EQ(fetches_, 1);
}

TEST_F(InputCacheTest, WhatWasNotUsedForLongestGoes) {
  InputCache cache(folder_, 10);
  use(cache, "aaaa");
  use(cache, "bbbb");
  use(cache, "aaaa");
  use(cache, "cccc");
  EXPECT_EQ(cache.nbytes(), 8U);
  use(cache, "aaaa");
  EXPECT_EQ(fetches_, 3);
  use(cache, "bbbb");
  EXPECT_EQ(fetches_, 4);
}

TEST_F(InputCacheTest, WhatIsInUseStays) {
  InputCache cache(folder_, 5);
  const auto first = use(cache, "aaaa");
  const auto second = use(cache, "bbbb");
  EXPECT_EQ(read(first->path()), "aaaa");
  EXPECT_EQ(read(second->path()), "bbbb");
  EXPECT_EQ(cache.nbytes(), 8U);
}

TEST_F(InputCacheTest, AFailedFetchLeavesNothing) {
  InputCache cache(folder_, 100);
  EXPECT_THROW(cache.use(Digest::of("x"), 1, [](const std::string&) { throw std::runtime_error("cut"); }),
               std::runtime_error);
  EXPECT_EQ(cache.nbytes(), 0U);
  EXPECT_EQ(read(use(cache, "x")->path()), "x");
}

TEST_F(InputCacheTest, SeveralAtOnceShareOneFetch) {
  InputCache cache(folder_, 100);
  std::promise<void> mayFetch;
  const InputCache::Fetch slow = [&, fetch = writing("shared")](const std::string& path) {
    mayFetch.get_future().wait();
    fetch(path);
  };
  auto first = std::async(std::launch::async, [&] { return read(cache.use(Digest::of("shared"), 6, slow)->path()); });
  auto second = std::async(std::launch::async, [&] { return read(cache.use(Digest::of("shared"), 6, slow)->path()); });
  mayFetch.set_value();
  EXPECT_EQ(first.get(), "shared");
  EXPECT_EQ(second.get(), "shared");
  EXPECT_EQ(fetches_, 1);
}

TEST_F(InputCacheTest, TheFolderIsUsedAgain) {
  { use(*std::make_unique<InputCache>(folder_, 100), "kept"); }
  InputCache cache(folder_, 100);
  EXPECT_EQ(cache.nbytes(), 4U);
  EXPECT_EQ(read(use(cache, "kept")->path()), "kept");
  EXPECT_EQ(fetches_, 1);
}

TEST_F(InputCacheTest, ACopyIsTheTasksOwn) {
  std::ofstream(files_.file("from")) << "original";
  placeCopy(files_.file("from"), files_.file("to"), 0700);
  EXPECT_EQ(read(files_.file("to")), "original");
  std::ofstream(files_.file("to")) << "changed";
  EXPECT_EQ(read(files_.file("from")), "original");
  EXPECT_EQ(std::filesystem::status(files_.file("to")).permissions(), std::filesystem::perms::owner_all);
}

}  // namespace
}  // namespace parallel::worker
