// Interrupts during the waits of a TransportClient.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "platform/interrupt/interpreterContext.h"
#include "platform/interrupt/utInterruptState.h"
#include "platform/threads/Mutex.h"
#include "transport/client/TransportClient.h"
#include "transport/client/testing/FakeInvokable.h"
#include "transport/data/testing/framing.h"

namespace parallel::spf::transport {
namespace {

using agent::spf::core::GenericPayload;
using foundation::usm::InterpreterContext;
using testing::FakeInvokable;
using testing::FakeReply;
using testing::ReceivedCall;

// The interrupt state's source: never interrupts, and counts who asked. The calls that poll are the clock of these
// tests, since each poll says that another slice of waiting is over.
class PollCounter {
 public:
  PollCounter() {
    utInterruptState::setSource([this] {
      const threads::MutexLock lock(mutex_);
      ++polls_[std::this_thread::get_id()];
      changed_.notifyAll();
      return false;
    });
  }
  ~PollCounter() { utInterruptState::setSource({}); }
  PollCounter(const PollCounter&) = delete;
  PollCounter& operator=(const PollCounter&) = delete;

  void waitFor(std::thread::id thread, int polls) {
    threads::MutexLock lock(mutex_);
    if (!changed_.waitFor(lock, std::chrono::seconds(30),
                          [&]() ZKS_REQUIRES(mutex_) { return polls_[thread] >= polls; }))
      throw std::runtime_error("the thread does not poll");
  }

  int pollsOf(std::thread::id thread) {
    const threads::MutexLock lock(mutex_);
    return polls_[thread];
  }

 private:
  threads::Mutex mutex_;
  threads::ConditionVariable changed_;
  std::map<std::thread::id, int> polls_ ZKS_GUARDED_BY(mutex_);
};

// One call on a thread of its own.
class Caller {
 public:
  explicit Caller(std::function<void()> call)
      : task_(std::move(call)), outcome_(task_.get_future()), thread_([this] { task_(); }) {}
  ~Caller() {
    if (thread_.joinable())
      thread_.join();
  }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  std::thread::id id() const { return thread_.get_id(); }
  // Rethrows what the call threw.
  void finish() {
    thread_.join();
    outcome_.get();
  }

 private:
  std::packaged_task<void()> task_;
  std::future<void> outcome_;
  std::thread thread_;
};

class InterruptedCall : public ::testing::Test {
 protected:
  InterruptedCall() : service_(std::make_shared<FakeInvokable>()), record_(std::make_shared<ConnectionRecord>()) {
    utInterruptState::clear();
    record_->invokable = service_;
  }
  ~InterruptedCall() override {
    utInterruptState::setSource({});
    utInterruptState::clear();
  }

  void callWithPayload() const { TransportClient(record_).invokeMethod("payload", InputPayload({})); }
  void callWithString() const { TransportClient(record_).invokeMethod("string", std::string()); }

  void answerAll(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      const ReceivedCall call = service_->take();
      call.handler.succeed(call.method == "string"
                               ? GenericPayload()
                               : testing::replyPayload(std::make_shared<FakeReply>(testing::container({}))));
    }
  }

  std::shared_ptr<FakeInvokable> service_;
  std::shared_ptr<ConnectionRecord> record_;
};

TEST_F(InterruptedCall, PayloadFormEndsWithTheHostsExceptionAndLeavesTheConnectionAlone) {
  Caller caller([&] {
    const InterpreterContext context;
    callWithPayload();
  });
  const ReceivedCall call = service_->take();
  utInterruptState::request();
  EXPECT_THROW(caller.finish(), Corvane::System::InterruptException);
  EXPECT_FALSE(utInterruptState::isPending()) << "one request ends one call";
  EXPECT_EQ(TransportClient(record_).getInvokable(), service_);
}

TEST_F(InterruptedCall, PayloadFormGivesTheCallUpWhenItIsInterruptedAndNotBefore) {
  Caller caller([&] {
    const InterpreterContext context;
    callWithPayload();
  });
  const ReceivedCall call = service_->take();
  EXPECT_FALSE(call.handler.caller().givenUp.stop_requested());
  utInterruptState::request();
  EXPECT_THROW(caller.finish(), Corvane::System::InterruptException);
  EXPECT_TRUE(call.handler.caller().givenUp.stop_requested());
}

TEST_F(InterruptedCall, LateReplyIsStoredAndDroppedWithItsHandler) {
  Caller caller([&] {
    const InterpreterContext context;
    callWithPayload();
  });
  std::weak_ptr<FakeReply> watched;
  {
    const ReceivedCall call = service_->take();
    utInterruptState::request();
    EXPECT_THROW(caller.finish(), Corvane::System::InterruptException);
    auto reply = std::make_shared<FakeReply>(testing::container({}));
    watched = reply;
    call.handler.succeed(testing::replyPayload(std::move(reply)));
    EXPECT_FALSE(watched.expired());
  }
  EXPECT_TRUE(watched.expired());
}

TEST_F(InterruptedCall, InterruptThatWasPendingBeforehandIsNoticed) {
  utInterruptState::request();
  const InterpreterContext context;
  EXPECT_THROW(callWithPayload(), Corvane::System::InterruptException);
}

TEST_F(InterruptedCall, ErrorOfTheInterruptSourcePassesUnchanged) {
  struct KeyboardInterrupt {};
  utInterruptState::setSource([]() -> bool { throw KeyboardInterrupt(); });
  const InterpreterContext context;
  EXPECT_THROW(callWithPayload(), KeyboardInterrupt);
}

TEST_F(InterruptedCall, PayloadFormPollsAgainAndAgainUntilTheReply) {
  PollCounter counter;
  Caller caller([&] {
    const InterpreterContext context;
    callWithPayload();
  });
  counter.waitFor(caller.id(), 3);
  answerAll(1);
  EXPECT_NO_THROW(caller.finish());
}

TEST_F(InterruptedCall, PayloadFormDoesNotPollOutsideTheInterpretersContext) {
  PollCounter counter;
  Caller outside([&] { callWithPayload(); });
  Caller clock([&] {
    const InterpreterContext context;
    callWithPayload();
  });
  const std::thread::id outsideId = outside.id();
  counter.waitFor(clock.id(), 3);
  answerAll(2);
  EXPECT_NO_THROW(outside.finish());
  EXPECT_NO_THROW(clock.finish());
  EXPECT_EQ(counter.pollsOf(outsideId), 0);
}

TEST_F(InterruptedCall, StringFormDoesNotPoll) {
  PollCounter counter;
  Caller string([&] {
    const InterpreterContext context;
    callWithString();
  });
  Caller clock([&] {
    const InterpreterContext context;
    callWithPayload();
  });
  const std::thread::id stringId = string.id();
  counter.waitFor(clock.id(), 3);
  answerAll(2);
  EXPECT_NO_THROW(string.finish());
  EXPECT_NO_THROW(clock.finish());
  EXPECT_EQ(counter.pollsOf(stringId), 0);
}

TEST_F(InterruptedCall, StringFormWaitsOnAndLeavesTheInterruptPending) {
  Caller caller([&] {
    const InterpreterContext context;
    callWithString();
  });
  const ReceivedCall call = service_->take();
  utInterruptState::request();
  call.handler.succeed(GenericPayload());
  EXPECT_NO_THROW(caller.finish());
  EXPECT_TRUE(utInterruptState::isPending());
}

}  // namespace
}  // namespace parallel::spf::transport
