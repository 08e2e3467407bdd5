#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <new>
#include <set>
#include <system_error>
#include <thread>

#include "platform/spf/core/internal/CancelNotice.h"
#include "platform/spf/core/internal/WorkerThreads.h"

namespace agent::spf::core::internal {
namespace {

TEST(WorkerThreads, TasksThatWaitForEachOtherAllRun) {
  std::atomic<int> arrived{0};
  {
    WorkerThreads workers;
    for (int i = 0; i < 32; ++i)
      workers.run([&] {
        ++arrived;
        arrived.notify_all();
        for (int count = arrived; count < 32; count = arrived)
          arrived.wait(count);
      });
  }
  EXPECT_EQ(arrived, 32);
}

TEST(WorkerThreads, ThreadsAreKeptForLaterTasks) {
  WorkerThreads workers;
  std::set<std::thread::id> threads;
  for (int i = 0; i < 50; ++i) {
    std::promise<std::thread::id> ran;
    auto future = ran.get_future();
    workers.run([&ran] { ran.set_value(std::this_thread::get_id()); });
    threads.insert(future.get());
  }
  EXPECT_EQ(threads.count(std::this_thread::get_id()), 0U);
  EXPECT_LT(threads.size(), 50U);  // a task may come before the last one's thread is idle again, but not every time
}

TEST(WorkerThreads, MayBeEndedByATaskOfItsOwn) {
  std::promise<void> ended;
  auto future = ended.get_future();
  auto workers = std::make_shared<WorkerThreads>();
  WorkerThreads& reference = *workers;
  reference.run([held = std::move(workers), &ended]() mutable {
    EXPECT_TRUE(held->isOwnThread());
    held = nullptr;
    ended.set_value();
  });
  future.get();
}

TEST(WorkerThreads, WhatIsRunAfterTheEndRunsAtOnce) {
  WorkerThreads workers;
  workers.join();
  bool ran = false;
  workers.run([&] { ran = true; });
  EXPECT_TRUE(ran);
}

TEST(WorkerThreads, TasksInLineWaitForAFreeThread) {
  constexpr int kMost = 3;
  std::atomic<int> running{0};
  std::atomic<int> ran{0};
  {
    WorkerThreads workers({.least = 1, .most = kMost});
    for (int i = 0; i < 100; ++i)
      workers.runInLine([&] {
        EXPECT_LE(++running, kMost);
        ++ran;
        --running;
      });
    EXPECT_LE(workers.count(), std::size_t{kMost});
  }
  EXPECT_EQ(ran, 100);
}

TEST(WorkerThreads, TaskThatMustNotWaitIsRefusedWhenAllThreadsAreBusy) {
  std::promise<void> entered;
  std::promise<void> goOn;
  WorkerThreads workers({.least = 1, .most = 1});
  workers.runInLine([&] {
    entered.set_value();
    goOn.get_future().get();
  });
  entered.get_future().get();
  EXPECT_THROW(workers.run([] { ADD_FAILURE() << "was refused"; }), std::system_error);
  std::promise<void> ran;
  workers.runInLine([&] { ran.set_value(); });
  goOn.set_value();
  ran.get_future().get();
}

TEST(WorkerThreads, ThreadsThatHaveNothingToDoEnd) {
  WorkerThreads workers({.least = 1, .idleTime = std::chrono::milliseconds(1)});
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  for (int round = 0; round < 3; ++round) {
    std::promise<void> goOn;
    const std::shared_future<void> mayGoOn = goOn.get_future().share();
    for (int i = 0; i < 8; ++i)
      workers.run([mayGoOn] { mayGoOn.wait(); });
    EXPECT_GE(workers.count(), 8U);
    goOn.set_value();
    while (workers.count() > 1 && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    EXPECT_EQ(workers.count(), 1U);
  }
}

TEST(CancelNotice, RunsTheCallbackOnceWhenCancelled) {
  CancelNotice notice;
  int called = 0;
  notice.setCallback([&] { ++called; });
  EXPECT_FALSE(notice.isCancelled());
  EXPECT_TRUE(notice.mark());
  EXPECT_FALSE(notice.mark());
  notice.run();
  notice.run();
  EXPECT_EQ(called, 1);
  EXPECT_TRUE(notice.isCancelled());
}

TEST(CancelNotice, DropsWhatACallbackThrows) {
  CancelNotice notice;
  notice.setCallback([] { throw std::bad_alloc(); });
  notice.mark();
  EXPECT_NO_THROW(notice.run());
  notice.setCallback(nullptr);  // does not wait for the callback that has thrown
}

TEST(CancelNotice, RunsACallbackThatComesLateAtOnce) {
  CancelNotice notice;
  notice.mark();
  notice.run();
  int called = 0;
  notice.setCallback([&] { ++called; });
  EXPECT_EQ(called, 1);
}

TEST(CancelNotice, CallbackTakenBackIsNotRun) {
  CancelNotice notice;
  int called = 0;
  notice.setCallback([&] { ++called; });
  notice.setCallback(nullptr);
  notice.mark();
  notice.run();
  EXPECT_EQ(called, 0);
}

TEST(CancelNotice, TakingBackWaitsForACallbackThatIsRunning) {
  CancelNotice notice;
  std::promise<void> running;
  std::promise<void> goOn;
  std::atomic<bool> ended{false};
  notice.setCallback([&] {
    running.set_value();
    goOn.get_future().get();
    ended = true;
  });
  notice.mark();
  std::thread runner([&] { notice.run(); });
  running.get_future().get();
  std::thread taker([&] {
    notice.setCallback(nullptr);
    EXPECT_TRUE(ended);
  });
  goOn.set_value();
  taker.join();
  runner.join();
}

TEST(CancelNotice, CallbackMayTakeItselfBack) {
  CancelNotice notice;
  int called = 0;
  notice.setCallback([&] {
    ++called;
    notice.setCallback(nullptr);
  });
  notice.mark();
  notice.run();
  EXPECT_EQ(called, 1);
}

}  // namespace
}  // namespace agent::spf::core::internal
