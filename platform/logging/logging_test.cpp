#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <latch>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"
#include "platform/logging/consoleSink.h"
#include "platform/logging/createQLVLogger.h"
#include "platform/logging/currentExceptionText.h"
#include "platform/logging/sinks.h"

namespace {

using namespace parallel::logging;
using testing::HasSubstr;

// Tells when it is turned into text.
struct Watched {
  int* formatted;
};

std::ostream& operator<<(std::ostream& stream, const Watched& value) {
  ++*value.formatted;
  return stream << "watched";
}

class Logging : public testing::Test {
 protected:
  ~Logging() override { setEnabledLevels("", 0); }

  std::vector<LogRecord> records_;
  std::function<void(const LogRecord&)> collect_ = [this](const LogRecord& record) { records_.push_back(record); };
};

TEST_F(Logging, RecordCarriesLoggerLevelAndText) {
  const SinkHandle sink(collect_);
  auto& logger = createQLVLogger("test.one");
  setEnabledLevels("test.one", kWarning);
  FOUNDATION_LOG(logger, 8) << "retrying " << 3;
  ASSERT_EQ(records_.size(), 1U);
  EXPECT_EQ(records_[0].logger, "test.one");
  EXPECT_EQ(records_[0].level, 8U);
  EXPECT_EQ(records_[0].text, "retrying 3");
}

TEST_F(Logging, DisabledLevelFormatsNothing) {
  const SinkHandle sink(collect_);
  int formatted = 0;
  auto& logger = createQLVLogger("test.two");
  for (foundation::log::level_t level = 1; level != 0; level <<= 1)
    FOUNDATION_LOG(logger, level) << Watched{&formatted};
  logger.setEnabledLevels(kAll & ~kWarning);
  FOUNDATION_LOG(logger, kWarning) << Watched{&formatted};
  EXPECT_EQ(formatted, 0);
  EXPECT_TRUE(records_.empty());
}

TEST_F(Logging, WithoutSinkNothingIsFormattedOrPrinted) {
  int formatted = 0;
  auto& logger = createQLVLogger("test.three");
  logger.setEnabledLevels(kAll);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  FOUNDATION_LOG(logger, kError) << Watched{&formatted};
  { const SinkHandle sink(collect_); }
  FOUNDATION_LOG(logger, kError) << Watched{&formatted};
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(formatted, 0);
  EXPECT_TRUE(records_.empty());
}

TEST_F(Logging, LogStatementIsOneStatement) {
  const SinkHandle sink(collect_);
  auto& logger = createQLVLogger("test.statement");
  logger.setEnabledLevels(kError);
  bool otherBranch = false;
  if (records_.empty())
    FOUNDATION_LOG(logger, kError) << "taken";
  else
    otherBranch = true;
  EXPECT_EQ(records_.size(), 1U);
  EXPECT_FALSE(otherBranch);
}

TEST_F(Logging, EverySinkGetsTheRecordWhileItLives) {
  std::vector<std::string> second;
  auto& logger = createQLVLogger("test.four");
  logger.setEnabledLevels(kAll);
  const SinkHandle first(collect_);
  {
    const SinkHandle other([&second](const LogRecord& record) { second.push_back(record.text); });
    FOUNDATION_LOG(logger, kTrace) << "both";
  }
  FOUNDATION_LOG(logger, kTrace) << "first only";
  EXPECT_EQ(records_.size(), 2U);
  EXPECT_THAT(second, testing::ElementsAre("both"));
}

TEST_F(Logging, SinkThatThrowsDoesNotReachTheLoggingCode) {
  const SinkHandle broken([](const LogRecord&) { throw std::runtime_error("disk full"); });
  const SinkHandle sink(collect_);
  auto& logger = createQLVLogger("test.five");
  logger.setEnabledLevels(kAll);
  EXPECT_NO_THROW(FOUNDATION_LOG(logger, kError) << "text");
  EXPECT_EQ(records_.size(), 1U);
}

TEST_F(Logging, SinkThatLogsDoesNotRecurse) {
  auto& logger = createQLVLogger("test.six");
  logger.setEnabledLevels(kAll);
  const SinkHandle sink([&](const LogRecord& record) {
    records_.push_back(record);
    FOUNDATION_LOG(logger, kError) << "from inside";
  });
  FOUNDATION_LOG(logger, kError) << "from outside";
  EXPECT_EQ(records_.size(), 1U);
}

TEST_F(Logging, NameHasOneLogger) {
  std::vector<void*> seen(8);
  {
    std::latch start(8);
    std::vector<std::jthread> threads;
    for (auto& slot : seen)
      threads.emplace_back([&slot, &start] {
        start.arrive_and_wait();
        slot = &createQLVLogger("test.shared");
      });
  }
  for (void* logger : seen)
    EXPECT_EQ(logger, &createQLVLogger("test.shared"));
  EXPECT_NE(&createQLVLogger("test.other"), &createQLVLogger("test.shared"));
  EXPECT_EQ(createQLVLogger("test.shared").name(), "test.shared");
}

TEST_F(Logging, MaskOfANameIsKeptForTheLoggerToCome) {
  setEnabledLevels("test.later", kError | kTrace);
  EXPECT_EQ(createQLVLogger("test.later").enabledLevels(), kError | kTrace);
  EXPECT_EQ(createQLVLogger("test.untouched").enabledLevels(), 0U);
}

TEST_F(Logging, EmptyNameSetsAllLoggersAndThoseToCome) {
  auto& before = createQLVLogger("test.before");
  setEnabledLevels("test.named", kTrace);
  setEnabledLevels("", kDetail);
  EXPECT_EQ(before.enabledLevels(), kDetail);
  EXPECT_EQ(createQLVLogger("test.named").enabledLevels(), kDetail);
  EXPECT_EQ(createQLVLogger("test.after").enabledLevels(), kDetail);
}

TEST_F(Logging, RecordsOfManyThreadsArriveOneAtATime) {
  auto& logger = createQLVLogger("test.threads");
  logger.setEnabledLevels(kAll);
  std::atomic<int> inside{0};
  bool overlapped = false;
  int count = 0;
  const SinkHandle sink([&](const LogRecord&) {
    overlapped = overlapped || inside++ != 0;
    ++count;
    --inside;
  });
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread)
      threads.emplace_back([&logger] {
        for (int record = 0; record < 250; ++record)
          FOUNDATION_LOG(logger, kError) << record;
      });
  }
  EXPECT_EQ(count, 1000);
  EXPECT_FALSE(overlapped);
}

TEST(CurrentExceptionText, NamesTypeAndText) {
  try {
    throw std::runtime_error("what went wrong");
  } catch (...) {
    const std::string text = currentExceptionText();
    EXPECT_THAT(text, HasSubstr("what went wrong"));
    EXPECT_THAT(text, HasSubstr("runtime_error"));
  }
}

TEST(CurrentExceptionText, UnknownTypeStillHasAText) {
  try {
    throw 42;
  } catch (...) {
    EXPECT_FALSE(currentExceptionText().empty());
  }
}

// A pipe that nobody reads until the test does.
class ConsoleSink : public Logging {
 protected:
  ConsoleSink() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
      errors::throwSystemError("pipe2");
    reading_ = files::UniqueFd(ends[0]);
    writing_ = files::UniqueFd(ends[1]);
    logger_.setEnabledLevels(kAll);
  }

  // What is in the pipe.
  std::string written() const {
    std::string text(std::size_t{1} << 20, '\0');
    const ssize_t got = ::read(reading_.get(), text.data(), text.size());
    return text.substr(0, got > 0 ? static_cast<std::size_t>(got) : 0);
  }

  foundation::log::basic_diagnostic_logger<char>& logger_ = createQLVLogger("test.console");
  files::UniqueFd reading_;
  files::UniqueFd writing_;
};

TEST_F(ConsoleSink, RecordIsOneLine) {
  const SinkHandle sink = consoleSink(writing_.get(), "zks");
  FOUNDATION_LOG(logger_, kWarning) << "text";
  FOUNDATION_LOG(logger_, 64) << "";
  FOUNDATION_LOG(logger_, kError) << "several\nlines\x1B[2J\n\n";
  EXPECT_EQ(written(),
            "zks: warning: test.console: text\nzks: other: test.console: \n"
            "zks: error: test.console: several\\x0alines\\x1b[2J\n");
}

TEST_F(ConsoleSink, LongLineIsCut) {
  const SinkHandle sink = consoleSink(writing_.get(), "zks");
  FOUNDATION_LOG(logger_, kError) << std::string(60'000'000, '\x1B');
  const std::string line = written();
  EXPECT_EQ(line.size(), static_cast<std::size_t>(PIPE_BUF));
  EXPECT_TRUE(line.ends_with(" [...]\n")) << line.substr(line.size() - 20);
}

TEST_F(ConsoleSink, ReaderThatDoesNotReadStopsNobodyAndLearnsWhatItMissed) {
  const SinkHandle sink = consoleSink(writing_.get(), "zks");
  constexpr int kRecords = 3000;
  for (int i = 0; i < kRecords; ++i)
    FOUNDATION_LOG(logger_, kError) << std::string(100, 'x');
  const std::string before = written();
  FOUNDATION_LOG(logger_, kError) << "last";
  const auto lines = std::count(before.begin(), before.end(), '\n');
  ASSERT_LT(lines, kRecords);
  EXPECT_EQ(written(), "zks: " + std::to_string(kRecords - lines) +
                           " lines of the log were lost: nobody read them\nzks: error: test.console: last\n");
}

}  // namespace
