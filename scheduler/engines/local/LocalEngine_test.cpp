#include "scheduler/engines/local/LocalEngine.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "platform/files/testing/TemporaryDirectory.h"
#include "platform/logging/createQLVLogger.h"

namespace parallel::scheduler::engines {
namespace {

class LocalEngineTest : public testing::Test {
 protected:
  LocalEngine::Options script(const std::string& text) const {
    LocalEngine::Options options;
    options.command = {"/bin/sh", "-c", text};
    options.log = files_.file("log");
    options.firstPause = std::chrono::milliseconds(1);
    options.longestPause = std::chrono::milliseconds(2);
    return options;
  }
  // Tends the engine until the condition holds.
  template <class Condition>
  static bool tendUntil(LocalEngine& engine, Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline)
        return false;
      engine.tend([] { return true; });
    }
    return true;
  }
  std::string said() const {
    std::ostringstream text;
    text << std::ifstream(files_.file("log")).rdbuf();
    return text.str();
  }

  files::testing::TemporaryDirectory files_;
  LocalEngine::Logger& logger_ = logging::createQLVLogger("test");
};

TEST_F(LocalEngineTest, NothingIsStartedUntilItIsWanted) {
  LocalEngine engine(script("exec sleep 600"), logger_);
  engine.tend([] { return false; });
  EXPECT_FALSE(engine.worker());
  engine.tend([] { return true; });
  ASSERT_TRUE(engine.worker());
  const pid_t first = *engine.worker();
  EXPECT_EQ(::getsid(first), first);
  bool asked = false;
  engine.tend([&] { return asked = true; });
  EXPECT_FALSE(asked);
  EXPECT_EQ(engine.worker(), first);
  ::kill(first, SIGKILL);
  EXPECT_TRUE(tendUntil(engine, [&] { return engine.worker() && *engine.worker() != first; }));
  const pid_t second = *engine.worker();
  ::kill(second, SIGKILL);
  EXPECT_TRUE(tendUntil(engine, [&] { return engine.worker() != second; }));
  if (engine.worker())
    ::kill(*engine.worker(), SIGKILL);
}

TEST_F(LocalEngineTest, OneThatDiesIsReplacedAndHeard) {
  LocalEngine engine(script("echo says; echo more >&2; exit 3"), logger_);
  EXPECT_TRUE(tendUntil(engine, [&] { return said().find("says\nmore\nsays\nmore\n") == 0; }));
  EXPECT_TRUE(tendUntil(engine, [&] { return !engine.worker(); }));
}

TEST_F(LocalEngineTest, WhatCannotBeStartedIsTriedAgainAfterAPause) {
  auto options = script("");
  options.command = {files_.file("program").string()};
  LocalEngine engine(options, logger_);
  engine.tend([] { return true; });
  EXPECT_FALSE(engine.worker());
  std::ofstream(files_.file("program")) << "#!/bin/sh\necho runs\n";
  ::chmod(files_.file("program").c_str(), 0700);
  EXPECT_TRUE(tendUntil(engine, [&] { return said().find("runs\n") == 0; }));
  EXPECT_TRUE(tendUntil(engine, [&] { return !engine.worker(); }));
}

TEST_F(LocalEngineTest, ALoginNodeHasABatchSystemAndIsNoJobOfIt) {
  const std::string path = "/nowhere:" + files_.path();
  EXPECT_FALSE(isLoginNode(path, false));
  std::ofstream(files_.file("sbatch")) << "#!/bin/sh\n";
  ::chmod(files_.file("sbatch").c_str(), 0700);
  EXPECT_TRUE(isLoginNode(path, false));
  EXPECT_FALSE(isLoginNode(path, true));
}

}  // namespace
}  // namespace parallel::scheduler::engines
