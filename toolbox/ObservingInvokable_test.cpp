#include "toolbox/ObservingInvokable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <sstream>

#include "platform/spf/core/ExportedDataSource.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/promiseCompletingHandler.h"
#include "toolbox/testing/FakeInvokable.h"

namespace parallel::toolbox {
namespace {

using agent::spf::core::CompletionHandler;
using agent::spf::core::ExportedDataSource;
using agent::spf::core::GenericPayload;
using agent::spf::core::ImportedDataSource;

using ReplyPromise = std::promise<std::shared_ptr<ImportedDataSource>>;

// Gives some bytes, then throws.
class BreakingBuffer : public std::stringbuf {
 public:
  explicit BreakingBuffer(const std::string& bytes) : std::stringbuf(bytes, std::ios_base::in) {}

 protected:
  std::streamsize xsgetn(char* data, std::streamsize nbytes) override {
    if (in_avail() <= 0)
      throw agent::spf::Terminated("cut");
    return std::stringbuf::xsgetn(data, nbytes);
  }
};

class BreakingStream : public std::istream {
 public:
  explicit BreakingStream(const std::string& bytes) : std::istream(nullptr), buffer_(bytes) {
    rdbuf(&buffer_);
    exceptions(std::ios_base::badbit);
  }

 private:
  BreakingBuffer buffer_;
};

class ObservingInvokableTest : public testing::Test {
 protected:
  std::shared_ptr<std::istream> call(GenericPayload request) {
    const auto promise = std::make_shared<ReplyPromise>();
    auto future = promise->get_future();
    observing_.invoke({}, "method", agent::spf::core::promiseCompletingHandler(promise), std::move(request), 0);
    std::ostringstream instead;
    instead << future.get()->getImportedIstream()->rdbuf();
    EXPECT_EQ(instead.str(), std::string(5, '\0')) << "a container without items";
    return observation_->takeReply();
  }

  static GenericPayload requestOf(std::string bytes) {
    const auto size = static_cast<long>(bytes.size());
    auto writer = std::make_shared<ExportedDataSource::Writer>([bytes = std::move(bytes)](std::ostream& output) {
      output.put(bytes.front());
      output.write(bytes.data() + 1, static_cast<std::streamsize>(bytes.size() - 1));
    });
    return GenericPayload(std::make_shared<ExportedDataSource>(std::move(writer), size));
  }

  std::shared_ptr<FakeInvokable> next_ = std::make_shared<FakeInvokable>();
  std::shared_ptr<TransferProgress> progress_ = std::make_shared<TransferProgress>();
  std::shared_ptr<CallObservation> observation_ = std::make_shared<CallObservation>(progress_);
  ObservingInvokable observing_{next_, observation_};
};

TEST_F(ObservingInvokableTest, RequestPassesUnchangedAndIsCounted) {
  const std::string bytes = std::string(3'000'000, 'x') + "end";
  call(requestOf(bytes));
  EXPECT_EQ(next_->method, "method");
  EXPECT_TRUE(next_->request == bytes);
  EXPECT_EQ(progress_->toSend, bytes.size());
  EXPECT_EQ(progress_->sent, bytes.size());
}

TEST_F(ObservingInvokableTest, SecondAttemptToSendCountsFromTheBeginning) {
  auto again = std::make_shared<std::string>();
  class Twice : public FakeInvokable {
    void invoke(agent::spf::core::CallTag tag, const std::string& name, CompletionHandler&& handler,
                GenericPayload&& payload, int flags) override {
      std::ostringstream first;
      (*payload.getValueAsPointer<ExportedDataSource>(0)->writer())(first);
      FakeInvokable::invoke(tag, name, std::move(handler), std::move(payload), flags);
    }
  };
  ObservingInvokable observing(std::make_shared<Twice>(), observation_);
  observing.invoke({}, "m", CompletionHandler([](GenericPayload) {}, [](std::exception_ptr) {}), requestOf("12345"), 0);
  EXPECT_EQ(progress_->sent, 5U);
}

TEST_F(ObservingInvokableTest, ReplyPassesUnchangedAndIsCounted) {
  next_->reply = [] { return std::make_unique<std::istringstream>("0123456789"); };
  EXPECT_FALSE(progress_->answered);
  const auto reply = call(requestOf("?"));
  EXPECT_TRUE(progress_->answered);
  EXPECT_EQ(progress_->toReceive, 10U);
  char bytes[4];
  reply->read(bytes, 4);
  EXPECT_EQ(std::string(bytes, 4), "0123");
  EXPECT_EQ(progress_->received, 4U);
  EXPECT_EQ(reply->peek(), '4');
  EXPECT_EQ(reply->rdbuf()->in_avail(), 1) << "the byte that was peeked at";
  std::string rest;
  *reply >> rest;
  EXPECT_EQ(rest, "456789");
  EXPECT_EQ(progress_->received, 10U);
  EXPECT_TRUE(reply->eof());
}

TEST_F(ObservingInvokableTest, FailureInMidReplyPassesAsItIs) {
  next_->reply = [] { return std::make_unique<BreakingStream>("abc"); };
  const auto reply = call(requestOf("?"));
  char bytes[3];
  reply->read(bytes, 3);
  EXPECT_THROW(reply->read(bytes, 1), agent::spf::Terminated);
  EXPECT_TRUE(reply->bad());
}

TEST_F(ObservingInvokableTest, ReplyIsTakenOnce) {
  next_->reply = [] { return std::make_unique<std::istringstream>("0123456789"); };
  EXPECT_EQ(observation_->takeReply(), nullptr);
  EXPECT_NE(call(requestOf("?")), nullptr);
  EXPECT_EQ(observation_->takeReply(), nullptr);
}

TEST_F(ObservingInvokableTest, ErrorOfTheCallPassesAsTheObjectItIs) {
  next_->error = std::make_exception_ptr(agent::spf::Timeout("late"));
  std::exception_ptr received;
  observing_.invoke({}, "m", CompletionHandler([](GenericPayload) {}, [&](std::exception_ptr e) { received = e; }),
                    requestOf("?"), 0);
  EXPECT_EQ(received, next_->error);
  EXPECT_FALSE(progress_->answered);
}

TEST_F(ObservingInvokableTest, WhatTheServiceSaysOfATaskIsNotedAndPassedOn) {
  using Turn = TransferProgress::Turn;
  class Telling : public FakeInvokable {
   public:
    explicit Telling(const TransferProgress& progress) : progress_(progress) {}
    void invoke(agent::spf::core::CallTag, const std::string&, CompletionHandler&& handler, GenericPayload&&,
                int) override {
      for (const char* notice : {"queued", "?", "running"}) {
        handler.notice(notice);
        turns.push_back(progress_.turn);
      }
    }
    std::vector<Turn> turns;

   private:
    const TransferProgress& progress_;
  };
  const auto telling = std::make_shared<Telling>(*progress_);
  std::vector<std::string> passed;
  CompletionHandler handler([](GenericPayload) {}, [](std::exception_ptr) {}, {},
                            {.noticed = [&](std::string_view notice) { passed.emplace_back(notice); }});
  EXPECT_EQ(progress_->turn, Turn::unknown);
  ObservingInvokable(telling, observation_).invoke({}, "m", std::move(handler), requestOf("?"), 0);
  EXPECT_EQ(telling->turns, (std::vector{Turn::queued, Turn::queued, Turn::running}));
  EXPECT_EQ(passed, (std::vector<std::string>{"queued", "?", "running"}));
}

TEST_F(ObservingInvokableTest, StringRequestsPassUntouched) {
  call(GenericPayload(std::make_shared<std::string>("plain")));
  EXPECT_EQ(next_->request, "plain");
  EXPECT_EQ(progress_->toSend, 0U);
}

}  // namespace
}  // namespace parallel::toolbox
