#include <grpcpp/server_builder.h>
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "platform/spf/grpc/internal/QuickMethods.h"
#include "platform/spf/grpc/internal/ServerQueue.h"
#include "platform/spf/grpc/testing/QueuedOperation.h"

namespace agent::spf::grpc_transport::internal {
namespace {

using std::chrono::steady_clock;
using testing::QueuedOperation;

class ServerQueues : public ::testing::Test {
 protected:
  ServerQueues() { queue_.start(); }
  ~ServerQueues() override {
    queue_.shutdown();
    threads_.join();
  }

  // A call whose handler runs on the thread that served it.
  class Call {
   public:
    Call(ServerQueue& queue, bool isQuick, std::function<void()> handler = {})
        : handler_(std::move(handler)),
          operation_([this, &queue, isQuick] { queue.runNext([this] { run(); }, isQuick); }) {
      operation_.start(*queue.queue());
    }
    ~Call() { await(); }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    void await() {
      if (future_.valid())
        core::testing::await(future_);
    }

   private:
    void run() {
      if (handler_)
        handler_();
      operation_.await();
      done_.set_value();
    }

    std::function<void()> handler_;
    std::promise<void> done_;
    std::future<void> future_ = done_.get_future();
    QueuedOperation operation_;
  };

  core::internal::WorkerThreads threads_;
  ServerQueue queue_{grpc::ServerBuilder().AddCompletionQueue(), threads_};
};

TEST_F(ServerQueues, QuickHandlersRunOnOneThreadOnceThereIsAGuard) {
  Call(queue_, false).await();
  std::thread::id last;
  int inARow = 0;
  const auto deadline = steady_clock::now() + core::testing::kDeadline;
  while (inARow < 10 && steady_clock::now() < deadline) {
    std::thread::id here;
    Call(queue_, true, [&] { here = std::this_thread::get_id(); }).await();
    inARow = here == last ? inARow + 1 : 0;
    last = here;
  }
  EXPECT_EQ(inARow, 10);
}

TEST_F(ServerQueues, HandlersThatAreNotQuickHoldUpNoOther) {
  std::promise<void> goOn;
  auto future = goOn.get_future();
  Call first(queue_, false, [&] { core::testing::await(future); });
  Call(queue_, false).await();
  Call second(queue_, false, [&] { goOn.set_value(); });
}

// Each waits for the next one, which has to be served by somebody else.
TEST_F(ServerQueues, QuickHandlersThatTakeTheirTimeAfterAllLoseTheQueue) {
  for (int round = 0; round < 20; ++round) {
    Call(queue_, false).await();  // leaves a guard behind
    std::vector<std::promise<void>> goOn(5);
    std::vector<std::unique_ptr<Call>> calls;
    for (std::size_t i = 0; i < goOn.size(); ++i)
      calls.push_back(std::make_unique<Call>(queue_, true, [&goOn, i] {
        if (i > 0)
          goOn[i - 1].set_value();
        if (i + 1 < goOn.size()) {
          auto next = goOn[i].get_future();
          core::testing::await(next);
        }
      }));
  }
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
