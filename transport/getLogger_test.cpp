#include "transport/getLogger.h"

#include <gtest/gtest.h>

#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "platform/logging/createQLVLogger.h"
#include "platform/logging/sinks.h"

namespace parallel::spf::transport {
namespace {

TEST(GetLogger, ThreadsThatCallAtOnceGetOneLogger) {
  std::vector<const void*> seen(8);
  {
    std::latch start(8);
    std::vector<std::jthread> threads;
    for (const void*& slot : seen)
      threads.emplace_back([&slot, &start] {
        start.arrive_and_wait();
        slot = &getLogger();
      });
  }
  for (const void* logger : seen)
    EXPECT_EQ(logger, &getLogger());
}

TEST(GetLogger, LoggerIsTheToolboxsOneOfTheLibrarysName) {
  EXPECT_EQ(getLogger().name(), "parallel::spf::transport");
  EXPECT_EQ(&getLogger(), &logging::createQLVLogger("parallel::spf::transport"));
}

TEST(GetLogger, WithEveryLevelClearNothingIsFormatted) {
  int evaluated = 0;
  const auto text = [&evaluated] { return std::to_string(++evaluated); };
  std::vector<std::string> texts;
  const logging::SinkHandle sink([&texts](const logging::LogRecord& record) { texts.push_back(record.text); });
  getLogger().setEnabledLevels(0);
  for (const foundation::log::level_t level : {2U, 8U, 16U, 256U})
    FOUNDATION_LOG(getLogger(), level) << text();
  EXPECT_EQ(evaluated, 0);
  getLogger().setEnabledLevels(8);
  for (const foundation::log::level_t level : {2U, 8U, 16U, 256U})
    FOUNDATION_LOG(getLogger(), level) << text();
  getLogger().setEnabledLevels(0);
  EXPECT_EQ(texts, std::vector<std::string>{"1"});
}

}  // namespace
}  // namespace parallel::spf::transport
