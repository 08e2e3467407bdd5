// This user's own service: zksd, started by zks where none runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

#include "cli/UserService.h"
#include "cli/testing/ZksFixture.h"

namespace zks {
namespace {

using testing::HasSubstr;

class ZksService : public ZksFixture {
 protected:
  ZksService() {
    std::filesystem::create_directory(path("run"));
    ::setenv("XDG_RUNTIME_DIR", path("run").c_str(), 1);
    ::setenv("XDG_STATE_HOME", path("state").c_str(), 1);
  }
  ~ZksService() override {
    stopUserService();
    ::unsetenv("XDG_RUNTIME_DIR");
    ::unsetenv("XDG_STATE_HOME");
  }
};

TEST_F(ZksService, IsStartedAndOutlivesWhoStartedIt) {
  EXPECT_EQ(zks({"service", "status"}).exitCode, 1);
  const auto started = zks({"service", "start"});
  EXPECT_EQ(started.exitCode, 0) << started.error;
  const auto process = findUserService();
  ASSERT_TRUE(process);
  EXPECT_EQ(started.output, "The service was started (process " + std::to_string(*process) + ")\n");
  EXPECT_THAT(started.error, HasSubstr("started the service (zksd, process " + std::to_string(*process) +
                                       "); its log is " + path("state/zks/zksd.log")));
  EXPECT_EQ(::getsid(*process), *process);
  EXPECT_EQ(zks({"service", "start"}).output, "The service runs (process " + std::to_string(*process) + ")\n");
  EXPECT_THAT(readFile(path("state/zks/zksd.log")), HasSubstr("listening on unix:" + path("run/zks/zksd.sock")));
}

TEST_F(ZksService, StopsAndStartsAgain) {
  zks({"service", "start"});
  const auto first = findUserService();
  ASSERT_TRUE(first);
  EXPECT_EQ(zks({"service", "restart"}).exitCode, 0);
  const auto second = findUserService();
  ASSERT_TRUE(second);
  EXPECT_NE(*first, *second);
  EXPECT_EQ(zks({"service", "stop"}).output, "The service was stopped; its jobs are kept\n");
  EXPECT_FALSE(findUserService());
  EXPECT_EQ(zks({"service", "stop"}).output, "The service does not run\n");
}

TEST_F(ZksService, OfSeveralWhoStartOneAtOnceOneStays) {
  std::vector<std::unique_ptr<ChildProcess>> starting;
  for (int i = 0; i < 5; ++i)
    starting.push_back(startZks({"service", "start"}));
  std::vector<std::string> outputs;
  for (const auto& each : starting) {
    const auto outcome = each->wait();
    EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
    outputs.push_back(outcome.output.substr(outcome.output.find("(process ")));
  }
  EXPECT_THAT(outputs, testing::Each(outputs.front()));
}

TEST_F(ZksService, WhatKeepsItFromStartingIsSaid) {
  writeFile(path("state"), "in the way");
  const auto outcome = zks({"service", "start"});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.error, HasSubstr("cannot be made"));
  EXPECT_FALSE(findUserService());
}

}  // namespace
}  // namespace zks
