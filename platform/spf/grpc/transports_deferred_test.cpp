// What every transport must do with calls whose handler returns before it answers: wait for what goes on with them, hold
// no thread meanwhile, and end them whatever happens.
#include <chrono>
#include <filesystem>
#include <memory>
#include <stop_token>
#include <thread>
#include <utility>
#include <vector>

#include "platform/spf/core/Closable.h"
#include "platform/spf/grpc/TransportsTest.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::testing {
namespace {

using core::DeferredReply;
using parallel::threads::ConditionVariable;
using parallel::threads::MutexLock;

// Calls that wait, in the order in which they came.
class Parked {
 public:
  void add(std::shared_ptr<DeferredReply> call) {
    const MutexLock lock(mutex_);
    calls_.push_back(std::move(call));
    changed_.notifyAll();
  }

  // All of them, once there are so many.
  std::vector<std::shared_ptr<DeferredReply>> take(std::size_t count) {
    MutexLock lock(mutex_);
    if (!changed_.waitFor(lock, kDeadline, [&]() ZKS_REQUIRES(mutex_) { return calls_.size() >= count; }))
      throw std::runtime_error(std::to_string(calls_.size()) + " calls arrived instead of " + std::to_string(count));
    return std::exchange(calls_, {});
  }
  std::shared_ptr<DeferredReply> takeOne() { return take(1).at(0); }

 private:
  parallel::threads::Mutex mutex_;
  ConditionVariable changed_;
  std::vector<std::shared_ptr<DeferredReply>> calls_ ZKS_GUARDED_BY(mutex_);
};

std::size_t threadsOfThisProcess() {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(threads), end(threads)));
}

// The threads of a burst are kept for a while, and nobody is told when they end.
bool threadsFallBelow(std::size_t count) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (threadsOfThisProcess() >= count && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  return threadsOfThisProcess() < count;
}

class TransportsDeferred : public Transports {
 protected:
  // Serves a method "wait", whose calls wait in parked().
  void serveWaiting() {
    serve("wait", [parked = parked_](ServerCall& call) {
      EXPECT_EQ(readAll(call.request()), "request");
      parked->add(call.defer());
    });
  }
  core::testing::ReplyFuture startWaiting(std::stop_token giveUp = {}) {
    return start(client(), "wait", sourceOf("request"), {std::move(giveUp)});
  }
  Parked& parked() { return *parked_; }

 private:
  std::shared_ptr<Parked> parked_ = std::make_shared<Parked>();
};

TEST_P(TransportsDeferred, ReplyIsWrittenByWhatResumesTheCall) {
  serveWaiting();
  auto reply = startWaiting();
  parked().takeOne()->resume([](ServerCall& call) {
    call.setReplySize(5);
    call.reply() << "reply";
  });
  EXPECT_EQ(readAll(*await(reply)->getImportedIstream()), "reply");
}

TEST_P(TransportsDeferred, RequestMayBeReadByWhatResumesTheCall) {
  serve("wait", [&](ServerCall& call) { parked().add(call.defer()); });
  auto reply = startWaiting();
  parked().takeOne()->resume([](ServerCall& call) { call.reply() << readAll(call.request()) << "!"; });
  EXPECT_EQ(readAll(*await(reply)->getImportedIstream()), "request!");
}

TEST_P(TransportsDeferred, HandlerMayBeginTheReply) {
  serve("wait", [&](ServerCall& call) {
    call.reply() << readAll(call.request()) << ", ";
    parked().add(call.defer());
  });
  auto reply = startWaiting();
  parked().takeOne()->resume([](ServerCall& call) { call.reply() << "end"; });
  EXPECT_EQ(readAll(*await(reply)->getImportedIstream()), "request, end");
}

TEST_P(TransportsDeferred, CallThatIsResumedBeforeItsHandlerReturnsGoesOnAfterIt) {
  serve("wait", [](ServerCall& call) {
    auto handlerIsThere = std::make_shared<std::atomic<bool>>(true);
    call.defer()->resume(
        [handlerIsThere](ServerCall& again) { again.reply() << (*handlerIsThere ? "too early" : "x"); });
    *handlerIsThere = false;
  });
  EXPECT_EQ(call(client(), "wait", std::string()), "x");
}

TEST_P(TransportsDeferred, CallMayBeDeferredAgain) {
  serveWaiting();
  auto reply = startWaiting();
  parked().takeOne()->resume([this](ServerCall& call) {
    call.reply() << "a";
    parked().add(call.defer());
  });
  parked().takeOne()->resume([](ServerCall& call) { call.reply() << "b"; });
  EXPECT_EQ(readAll(*await(reply)->getImportedIstream()), "ab");
}

TEST_P(TransportsDeferred, FirstResumeCounts) {
  serveWaiting();
  auto reply = startWaiting();
  const auto call = parked().takeOne();
  call->resume([](ServerCall& served) { served.reply() << "first"; });
  call->resume([](ServerCall& served) { served.reply() << "second"; });
  EXPECT_EQ(readAll(*await(reply)->getImportedIstream()), "first");
}

TEST_P(TransportsDeferred, ErrorOfWhatResumesTheCallEndsIt) {
  serveWaiting();
  auto reply = startWaiting();
  parked().takeOne()->resume([](ServerCall&) { throw std::runtime_error("it failed later"); });
  const auto chain = chainThrownBy([&] { readAll(*await(reply)->getImportedIstream()); });
  ASSERT_FALSE(chain.empty());
  EXPECT_EQ(chain[0].text, "it failed later");
}

TEST_P(TransportsDeferred, ErrorOfTheHandlerCountsThoughItHasDeferred) {
  serve("wait", [](ServerCall& call) {
    call.defer()->resume([](ServerCall& again) { again.reply() << "never"; });
    throw std::runtime_error("it failed at once");
  });
  const auto chain = chainThrownBy([&] { call(client(), "wait", std::string()); });
  ASSERT_FALSE(chain.empty());
  EXPECT_EQ(chain[0].text, "it failed at once");
}

TEST_P(TransportsDeferred, CallThatTheServiceForgetsEndsWithAnError) {
  serveWaiting();
  auto reply = startWaiting();
  parked().takeOne() = nullptr;
  EXPECT_EQ(textOfOnly(chainThrownBy([&] { readAll(*await(reply)->getImportedIstream()); }),
                       core::ErrorLevel::Kind::framework),
            "The service let go of call \"wait\" without an answer.");
}

TEST_P(TransportsDeferred, CallThatItsHandlerForgetsEndsWithAnError) {
  serve("wait", [](ServerCall& call) { call.defer(); });
  EXPECT_EQ(
      textOfOnly(chainThrownBy([&] { call(client(), "wait", std::string()); }), core::ErrorLevel::Kind::framework),
      "The service let go of call \"wait\" without an answer.");
}

TEST_P(TransportsDeferred, WaitingCallThatIsGivenUpTellsItsServiceAndEnds) {
  service().add("echo", echo);
  service().add("wait", [parked = &parked(), probe = probe()](ServerCall& call) {
    call.onCancel([probe] { probe->cancelled.set_value(); });
    parked->add(call.defer());
  });
  connect();
  std::stop_source giveUp;
  auto reply = startWaiting(giveUp.get_token());
  const auto call = parked().takeOne();
  giveUp.request_stop();
  EXPECT_THROW(await(reply), Terminated);
  awaitEvent(probe()->cancelled);
  call->resume([](ServerCall&) { ADD_FAILURE() << "a call that was cancelled went on"; });
  EXPECT_EQ(core::testing::call(client(), "echo", std::string("next")), "next");
}

TEST_P(TransportsDeferred, WaitingCallsEndWithTheirConnection) {
  serveWaiting();
  auto reply = startWaiting();
  const auto call = parked().takeOne();
  dynamic_cast<core::Closable&>(client()).close();
  EXPECT_THROW(await(reply), Terminated);
}

TEST_P(TransportsDeferred, WaitingCallsEndWithTheService) {
  serverOptions().grace = std::chrono::milliseconds(0);
  serveWaiting();
  auto reply = startWaiting();
  const auto call = parked().takeOne();
  if (isInProcess())
    disconnect();
  stopServer();
  EXPECT_THROW(await(reply), Terminated);
}

// How replies ended, as their services are told.
class Endings {
 public:
  void watch(ServerCall& call) {
    call.onEnd([this, &call](const std::exception_ptr& error) {
      std::string how = "well";
      try {
        if (error != nullptr)
          std::rethrow_exception(error);
      } catch (const Terminated&) {
        how = "given up";
      } catch (const std::exception& e) {
        how = e.what();
      }
      const MutexLock lock(mutex_);
      endings_.push_back(how + " after " + std::to_string(call.replyBytes()));
      changed_.notifyAll();
    });
  }

  // Once there are so many.
  std::vector<std::string> take(std::size_t count) {
    MutexLock lock(mutex_);
    changed_.waitFor(lock, kDeadline, [&]() ZKS_REQUIRES(mutex_) { return endings_.size() >= count; });
    return endings_;
  }
  std::size_t count() {
    const MutexLock lock(mutex_);
    return endings_.size();
  }

 private:
  parallel::threads::Mutex mutex_;
  ConditionVariable changed_;
  std::vector<std::string> endings_ ZKS_GUARDED_BY(mutex_);
};

class TransportsEnd : public TransportsDeferred {
 protected:
  // As serveWaiting(), with endings().
  void serveWatched() {
    serve("wait", [this](ServerCall& call) {
      endings_.watch(call);
      parked().add(call.defer());
    });
  }
  Endings& endings() { return endings_; }

 private:
  Endings endings_;
};

TEST_P(TransportsEnd, IsToldOnceWhenTheHandlerHasReturned) {
  serve("reply", [this](ServerCall& call) {
    endings().watch(call);
    call.reply() << "abc";
    EXPECT_EQ(endings().count(), 0U);
  });
  EXPECT_EQ(call(client(), "reply", std::string()), "abc");
  EXPECT_THAT(endings().take(1), ::testing::ElementsAre("well after 3"));
}

TEST_P(TransportsEnd, IsToldWithTheErrorOfTheHandler) {
  serve("fail", [this](ServerCall& call) {
    endings().watch(call);
    throw std::runtime_error("broken");
  });
  EXPECT_ANY_THROW(call(client(), "fail", std::string()));
  EXPECT_THAT(endings().take(1), ::testing::ElementsAre("broken after 0"));
}

TEST_P(TransportsEnd, IsToldWhenADeferredReplyEndsAndNotBefore) {
  serveWatched();
  auto reply = startWaiting();
  const auto waiting = parked().takeOne();
  EXPECT_EQ(endings().count(), 0U);
  waiting->resume([](ServerCall& call) { call.reply() << "later"; });
  EXPECT_EQ(readAll(*await(reply)->getImportedIstream()), "later");
  EXPECT_THAT(endings().take(1), ::testing::ElementsAre("well after 5"));
}

TEST_P(TransportsEnd, IsToldWhenADeferredReplyFails) {
  serveWatched();
  auto reply = startWaiting();
  parked().takeOne()->resume([](ServerCall&) { throw std::runtime_error("broken later"); });
  EXPECT_ANY_THROW(readAll(*await(reply)->getImportedIstream()));
  EXPECT_THAT(endings().take(1), ::testing::ElementsAre("broken later after 0"));
}

TEST_P(TransportsEnd, IsToldWhenAWaitingCallIsGivenUp) {
  serveWatched();
  std::stop_source giveUp;
  auto reply = startWaiting(giveUp.get_token());
  const auto waiting = parked().takeOne();
  giveUp.request_stop();
  EXPECT_THROW(await(reply), Terminated);
  EXPECT_THAT(endings().take(1), ::testing::ElementsAre("given up after 0"));
}

TEST_P(TransportsEnd, WhatItsObserverThrowsIsDropped) {
  serve("reply", [this](ServerCall& call) {
    call.onEnd([](const std::exception_ptr&) { throw std::runtime_error("from the observer"); });
    endings().watch(call);
  });
  EXPECT_EQ(call(client(), "reply", std::string()), "");
  EXPECT_THAT(endings().take(1), ::testing::ElementsAre("well after 0"));
}

INSTANTIATE_TRANSPORTS(TransportsEnd);

TEST_P(TransportsDeferred, HundredsOfWaitingCallsHoldNoThread) {
  constexpr std::size_t kCalls = 500;

  service().add("echo", echo);
  serveWaiting();
  std::vector<core::testing::ReplyFuture> replies;
  for (std::size_t i = 0; i < kCalls; ++i)
    replies.push_back(startWaiting());
  const auto calls = parked().take(kCalls);
  EXPECT_EQ(call(client(), "echo", std::string("next")), "next");
  EXPECT_TRUE(threadsFallBelow(30)) << threadsOfThisProcess();
  for (const auto& waiting : calls)
    waiting->resume([](ServerCall& served) { served.reply() << "done"; });
  for (auto& reply : replies)
    EXPECT_EQ(readAll(*await(reply)->getImportedIstream()), "done");
}

INSTANTIATE_TRANSPORTS(TransportsDeferred);

}  // namespace
}  // namespace agent::spf::testing
