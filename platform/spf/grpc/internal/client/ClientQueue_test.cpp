#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "platform/spf/grpc/internal/client/ClientQueue.h"
#include "platform/spf/grpc/testing/QueuedOperation.h"

namespace agent::spf::grpc_transport::internal {
namespace {

using std::chrono::steady_clock;
using testing::QueuedOperation;

class ClientQueues : public ::testing::Test {
 protected:
  ClientQueues() : thread_([this] { queue_.serve(); }) {}
  ~ClientQueues() override {
    queue_.queue().Shutdown();
    queue_.callThread();
    thread_.join();
  }

  // As a caller that waits: where the operation was served.
  std::thread::id serveOneHere(std::function<void()> action = {}) {
    QueuedOperation operation(std::move(action));
    operation.start(queue_.queue());
    queue_.serveHere([&] { return operation.isServed(); });
    return operation.await();
  }

  // Until a caller gets a turn; false when none did in time.
  bool awaitTurn() {
    const auto deadline = steady_clock::now() + core::testing::kDeadline;
    while (serveOneHere() != std::this_thread::get_id())
      if (steady_clock::now() > deadline)
        return false;
    return true;
  }

  std::thread::id thread() const { return thread_.get_id(); }

  std::atomic<bool> busy_{false};
  ClientQueue queue_{[this] { return busy_.load(); }};

 private:
  std::thread thread_;
};

TEST_F(ClientQueues, CallerThatComesOftenServes) {
  EXPECT_TRUE(awaitTurn());
}

TEST_F(ClientQueues, ThreadServesAgainWhenCallersStayAway) {
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(awaitTurn());
    QueuedOperation operation;
    operation.start(queue_.queue());
    ASSERT_EQ(operation.await(), thread());
  }
}

TEST_F(ClientQueues, ThreadThatIsCalledServes) {
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(awaitTurn());
    queue_.callThread();
    ASSERT_EQ(serveOneHere(), thread());
  }
}

TEST_F(ClientQueues, ThreadServesWhatACallerLeavesBehind) {
  busy_ = true;
  for (int i = 0; i < 200; ++i)
    ASSERT_EQ(serveOneHere(), thread());
}

TEST_F(ClientQueues, TurnOverWhichNothingHappensEnds) {
  ASSERT_TRUE(awaitTurn());
  for (int i = 0; i < 5; ++i)
    queue_.serveHere([] { return false; });
  QueuedOperation operation;
  operation.start(queue_.queue());
  EXPECT_EQ(operation.await(), thread());
}

TEST_F(ClientQueues, CallersTurnIsKnownOnItsThreadOnly) {
  bool asked = false;
  const auto deadline = steady_clock::now() + core::testing::kDeadline;
  while (!asked && steady_clock::now() < deadline) {
    const auto here = std::this_thread::get_id();
    serveOneHere([&] {
      const bool isHere = std::this_thread::get_id() == here;
      EXPECT_EQ(queue_.isCallersTurn(), isHere);
      std::thread([&] { EXPECT_FALSE(queue_.isCallersTurn()); }).join();
      asked = isHere;
    });
    EXPECT_FALSE(queue_.isCallersTurn());
  }
  EXPECT_TRUE(asked);
}

TEST_F(ClientQueues, NeverTwoServeAtATime) {
  int serving = 0;  // not atomic: whoever serves has it to himself
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 4; ++caller)
    callers.emplace_back([&, caller] {
      for (int i = 0; i < 300; ++i) {
        if (i % 50 == 10 * caller)
          queue_.callThread();
        serveOneHere([&] {
          EXPECT_EQ(++serving, 1);
          std::this_thread::yield();
          --serving;
        });
      }
    });
  for (std::thread& caller : callers)
    caller.join();
}

}  // namespace
}  // namespace agent::spf::grpc_transport::internal
