#include <grpcpp/server_builder.h>
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "platform/spf/grpc/internal/server/QuickMethods.h"
#include "platform/spf/grpc/internal/server/ServerQueue.h"
#include "platform/spf/grpc/testing/QueuedOperation.h"

namespace agent::spf::grpc_transport::internal {
namespace {

using std::chrono::steady_clock;
using testing::QueuedOperation;

class ServerQueues : public ::testing::Test {
 protected:
  ServerQueues() { queue_.start(); }
  ~ServerQueues() override { queue_.shutdown(); }

  // A call whose handler runs where the queue is served; where nobody guards, it is not run.
  class Call {
   public:
    explicit Call(ServerQueue& queue, std::function<void()> handler = {})
        : handler_(std::move(handler)), operation_([this, &queue] {
            if (!queue.runSoon([this] { run(); }))
              done_.set_value(false);
          }) {
      operation_.start(*queue.queue());
    }
    ~Call() { hasRun(); }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    bool hasRun() {
      if (future_.valid()) {
        hasRun_ = core::testing::await(future_);
        operation_.await();
      }
      return hasRun_;
    }

   private:
    void run() {
      if (handler_)
        handler_();
      done_.set_value(true);
    }

    std::function<void()> handler_;
    std::promise<bool> done_;
    std::future<bool> future_ = done_.get_future();
    bool hasRun_ = false;
    QueuedOperation operation_;
  };

  // Until somebody guards: the guard of the moment may be about to begin, or have taken the queue over.
  bool awaitRun(std::function<void()> handler = {}) {
    const auto deadline = steady_clock::now() + core::testing::kDeadline;
    while (!Call(queue_, handler).hasRun())
      if (steady_clock::now() > deadline)
        return false;
    return true;
  }

  ServerQueue queue_{grpc::ServerBuilder().AddCompletionQueue()};
};

TEST_F(ServerQueues, QuickHandlersRunOnTheThreadThatServes) {
  std::thread::id last;
  int inARow = 0;
  const auto deadline = steady_clock::now() + core::testing::kDeadline;
  while (inARow < 10 && steady_clock::now() < deadline) {
    std::thread::id here;
    ASSERT_TRUE(awaitRun([&] { here = std::this_thread::get_id(); }));
    inARow = here == last ? inARow + 1 : 0;
    last = here;
  }
  EXPECT_EQ(inARow, 10);
}

// The handler waits for an operation that only another thread can serve.
TEST_F(ServerQueues, HandlerThatTakesItsTimeAfterAllLosesTheQueue) {
  for (int round = 0; round < 20; ++round) {
    std::thread::id there;
    ASSERT_TRUE(awaitRun([&] {
      QueuedOperation other([] {});
      other.start(*queue_.queue());
      there = other.await();
      EXPECT_NE(there, std::this_thread::get_id());
    }));
  }
}

TEST_F(ServerQueues, WhileNobodyGuardsNoHandlerRunsHere) {
  std::promise<void> goOn;
  auto future = goOn.get_future();
  std::promise<void> entered;
  auto first = std::async(std::launch::async, [&] {
    return awaitRun([&] {
      entered.set_value();
      core::testing::await(future);
    });
  });
  auto isIn = entered.get_future();
  core::testing::await(isIn);
  EXPECT_FALSE(Call(queue_).hasRun());  // served by the guard that took over
  goOn.set_value();
  EXPECT_TRUE(core::testing::await(first));
  EXPECT_TRUE(awaitRun());
}

TEST(QuickMethods, AreThoseWhoseLastRunWasShort) {
  QuickMethods methods;
  EXPECT_FALSE(methods.contains("echo"));
  methods.note("echo", QuickMethods::kQuick);
  EXPECT_TRUE(methods.contains("echo"));
  EXPECT_FALSE(methods.contains("other"));
  methods.note("echo", QuickMethods::kQuick + std::chrono::nanoseconds(1));
  EXPECT_FALSE(methods.contains("echo"));
}

}  // namespace
}  // namespace agent::spf::grpc_transport::internal
