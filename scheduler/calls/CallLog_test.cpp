#include "scheduler/calls/CallLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/logging/createQLVLogger.h"
#include "platform/logging/sinks.h"
#include "platform/spf/core/errors.h"
#include "scheduler/testing/FakeServerCall.h"

namespace parallel::scheduler {
namespace {

using agent::spf::core::ServerCall;
using namespace std::chrono_literals;
using testing::FakeServerCall;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

class CallLogTest : public ::testing::Test {
 protected:
  CallLogTest() { logger_.setEnabledLevels(logging::kAll); }
  ~CallLogTest() override { logger_.setEnabledLevels(0); }

  // The only line that the call leaves.
  logging::LogRecord lineOf(const CallLog::Method& method) {
    FakeServerCall call("12345", "runTask");
    records_.clear();
    serve(call, method);
    EXPECT_EQ(records_.size(), 1U);
    return records_.empty() ? logging::LogRecord{} : records_.front();
  }

  // As the framework does.
  void serve(FakeServerCall& call, const CallLog::Method& method) {
    std::exception_ptr error;
    try {
      log_.serve(call, method);
    } catch (...) {
      error = std::current_exception();
    }
    EXPECT_EQ(records_.size(), 0U) << "before the reply has ended";
    call.end(error);
  }

  foundation::log::basic_diagnostic_logger<char>& logger_ = logging::createQLVLogger("zks.scheduler.calls.test");
  const CallLog log_{logger_};
  std::vector<logging::LogRecord> records_;
  logging::SinkHandle sink_{[this](const logging::LogRecord& record) { records_.push_back(record); }};
};

TEST_F(CallLogTest, ServedCallIsOneLineAtLevelInfo) {
  const auto line = lineOf([](ServerCall& call, CallRecord& record) {
    record = {.program = "sort", .outcome = "exited 3", .queued = 2ms, .ran = 1203ms};
    call.reply() << "1234567";
  });
  EXPECT_EQ(line.level, logging::kInfo);
  EXPECT_THAT(line.text, MatchesRegex("time=[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{3}Z peer=somewhere:1 "
                                      "method=\"runTask\" program=\"sort\" outcome=\"exited 3\" queued=0.002s "
                                      "ran=1.203s total=[0-9]+\\.[0-9]{3}s request=5 reply=7"));
}

TEST_F(CallLogTest, WhatAMethodDoesNotKnowIsLeftOut) {
  const auto line = lineOf([](ServerCall&, CallRecord&) {});
  EXPECT_THAT(line.text, HasSubstr("method=\"runTask\" outcome=\"served\" total="));
}

TEST_F(CallLogTest, FailedCallIsAWarningThatNamesEveryLevelOfTheError) {
  const auto line = lineOf([](ServerCall&, CallRecord&) {
    try {
      throw std::runtime_error("inner cause");
    } catch (...) {
      std::throw_with_nested(Exception<parallel::scheduler::MalformedRequest>("runTask", "it ends too early"));
    }
  });
  EXPECT_EQ(line.level, logging::kWarning);
  EXPECT_THAT(line.text, HasSubstr("outcome=\"failed: parallel:scheduler:MalformedRequest: The request to runTask is "
                                   "malformed: it ends too early.\\x0ainner cause\""));
}

TEST_F(CallLogTest, CallThatItsClientGaveUpIsNoWarning) {
  const auto line = lineOf([](ServerCall&, CallRecord&) { throw agent::spf::Terminated("gone"); });
  EXPECT_EQ(line.level, logging::kInfo);
  EXPECT_THAT(line.text, HasSubstr("outcome=\"given up\""));
}

TEST_F(CallLogTest, DeferredCallIsOneLineWithWhatItCameToLater) {
  FakeServerCall call("12345", "take");
  CallRecord* kept = nullptr;
  log_.serve(call, [&](ServerCall&, CallRecord& record) { kept = &record; });
  EXPECT_TRUE(records_.empty());
  kept->outcome = "granted 2";
  call.reply() << "123";
  EXPECT_TRUE(records_.empty());
  call.end();
  ASSERT_EQ(records_.size(), 1U);
  EXPECT_THAT(records_[0].text, MatchesRegex(".* method=\"take\" outcome=\"granted 2\" total=.* request=5 reply=3"));
}

TEST_F(CallLogTest, NamesAndTextsOfPeersMakeNoLineOfTheirOwnAndNoLongOne) {
  const auto line = lineOf([](ServerCall&, CallRecord& record) {
    record.program = "a\nzksd: error: forged\x1B[2J" + std::string(60'000'000, '\n');
    throw std::runtime_error(std::string(60'000'000, '\x1B'));
  });
  EXPECT_THAT(line.text, Not(HasSubstr("\n")));
  EXPECT_THAT(line.text, Not(HasSubstr("\x1B")));
  EXPECT_THAT(line.text, HasSubstr("program=\"a\\x0azksd: error: forged\\x1b[2J"));
  EXPECT_LT(line.text.size(), 10'000U);
}

TEST_F(CallLogTest, RefusedCallIsLoggedWithItsReason) {
  log_.refused("no\nsuch", "somewhere:2", agent::spf::FrameworkError("not here"));
  ASSERT_EQ(records_.size(), 1U);
  EXPECT_EQ(records_[0].level, logging::kWarning);
  EXPECT_THAT(records_[0].text, HasSubstr("peer=somewhere:2 method=\"no\\x0asuch\" outcome=\"refused: not here\""));
}

TEST_F(CallLogTest, QuestionWhetherAClientIsLetInIsNoCall) {
  log_.refused("", "somewhere:2", agent::spf::FrameworkError("no method"));
  EXPECT_TRUE(records_.empty());
}

TEST_F(CallLogTest, ServedCallIsLoggedAtTheLevelOfItsMethodAndFailedOneAsAWarning) {
  for (const bool fails : {false, true}) {
    FakeServerCall call("12345", "take");
    records_.clear();
    log_.serve(
        call, [](ServerCall&, CallRecord&) {}, logging::kDetail);
    call.end(fails ? std::make_exception_ptr(std::runtime_error("no luck")) : nullptr);
    ASSERT_EQ(records_.size(), 1U);
    EXPECT_EQ(records_[0].level, fails ? logging::kWarning : logging::kDetail);
  }
}

}  // namespace
}  // namespace parallel::scheduler
