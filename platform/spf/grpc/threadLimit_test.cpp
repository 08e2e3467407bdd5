// A service that gets few threads from the system, in a process of its own, under a real limit.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/spf/grpc/TransportsTest.h"
#include "platform/spf/grpc/testing/ServiceProcess.h"

namespace agent::spf::testing {
namespace {

// Only root can set a limit that counts that process alone.
class ThreadLimit : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::getuid() != 0)
      GTEST_SKIP() << "needs root";
  }

  static std::string address() { return "127.0.0.1:0"; }
};

TEST_F(ThreadLimit, ServiceStartsAndServesOrSaysThatItHasNoThread) {
  for (unsigned threads = 1; threads < 100; ++threads) {
    try {
      ServiceProcess service(address(), threads);
      const auto client = grpc_transport::connect(service.address(), plainClient());
      EXPECT_EQ(call(*client, "echo", std::string("abc")), "abc");
      EXPECT_EQ(service.end(), 0);
      EXPECT_GT(threads, 4U);
      return;
    } catch (const std::runtime_error& e) {
      EXPECT_THAT(e.what(), HasSubstr("the system gives the service no thread")) << threads;
    }
  }
  FAIL() << "the service never starts";
}

TEST_F(ThreadLimit, CrowdIsServedInLineAndNobodyIsShutOut) {
  constexpr unsigned kThreads = 24;
  constexpr int kCalls = 120;
  ServiceProcess service(address(), kThreads);
  const auto client = grpc_transport::connect(service.address(), plainClient());
  const std::string bytes = patternOf(std::size_t{2} << 20);
  std::vector<std::future<bool>> echoes;
  for (int i = 0; i < kCalls; ++i)
    echoes.push_back(std::async(std::launch::async, [&] { return call(*client, "echo", bytes) == bytes; }));
  const auto newcomer = grpc_transport::connect(service.address(), plainClient());
  EXPECT_EQ(call(*newcomer, "echo", std::string("abc")), "abc");
  for (auto& echo : echoes)
    EXPECT_TRUE(await(echo));
  EXPECT_EQ(service.end(), 0);
}

// Every handler waits for its client; the service ends all the same.
TEST_F(ThreadLimit, ServiceEndsWhileAllItsThreadsWait) {
  constexpr unsigned kThreads = 24;
  ServiceProcess service(address(), kThreads);
  const auto client = grpc_transport::connect(service.address(), plainClient());
  std::vector<core::testing::ReplyFuture> waiting;
  for (unsigned i = 0; i < 2 * kThreads; ++i)
    waiting.push_back(start(*client, "doNothing", sourceOf("")));
  service.awaitCall();
  EXPECT_EQ(service.end(), 0);
  for (auto& reply : waiting)
    EXPECT_THROW(await(reply), Terminated);
}

}  // namespace
}  // namespace agent::spf::testing
