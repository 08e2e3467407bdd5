#include "worker/Worker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "platform/files/testing/TemporaryDirectory.h"
#include "platform/logging/createQLVLogger.h"
#include "toolbox/BlobClient.h"
#include "worker/testing/TestScheduler.h"

namespace parallel::worker {
namespace {

using scheduler::ledger::TaskState;
using ::testing::HasSubstr;
using zksmessages::Ending;
using zksmessages::OutputFile;

class WorkerTest : public testing::Test {
 protected:
  ~WorkerTest() override {
    scheduler_.cut();
    worker_.reset();
  }

  void start(std::uint32_t cores = 2) {
    WorkerSettings settings;
    settings.name = "tester";
    settings.resources.set_cores(cores);
    settings.resources.set_memory_bytes(1 << 20);
    settings.scratchParent = files_.path();
    settings.killGrace = std::chrono::milliseconds(200);
    settings.awayLimit = awayLimit_;
    settings.idleLimit = idleLimit_;
    worker_ = std::make_unique<Worker>(
        settings, [this] { return scheduler_.connect(); }, logging::createQLVLogger("test"));
  }
  bool waitForEnd() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!worker_->hasEnded()) {
      if (std::chrono::steady_clock::now() > deadline)
        return false;
      std::this_thread::yield();
    }
    return true;
  }
  std::string marker(const std::string& name) const { return files_.file(name).string(); }
  // Runs until the file is there.
  std::string untilThere(const std::string& name) const {
    return "until [ -e " + marker(name) + " ]; do sleep 0.01; done";
  }
  void make(const std::string& name) const { std::ofstream(marker(name)) << "x"; }

  files::testing::TemporaryDirectory files_;
  TestScheduler scheduler_;
  std::chrono::nanoseconds awayLimit_ = std::chrono::minutes(10);
  std::optional<std::chrono::nanoseconds> idleLimit_;
  std::unique_ptr<Worker> worker_;
};

TEST_F(WorkerTest, AllTasksOfAnArrayEndOnceWithTheirOwnValues) {
  auto array = TestScheduler::scripts(50, "echo $ZKS_INDEX $ZKS_LINE {line}");
  array.set_first_index(10);
  array.set_index_step(2);
  array.mutable_lines();
  const auto job = scheduler_.submit(array);
  start();
  ASSERT_TRUE(scheduler_.waitUntilEnded(job));
  const auto results = scheduler_.accepted();
  ASSERT_EQ(results.size(), 50U);
  for (const auto& [task, ofTask] : results) {
    ASSERT_EQ(ofTask.size(), 1U);
    const std::string line = "line " + std::to_string(task);
    EXPECT_EQ(ofTask[0].files(0).content().content(), std::to_string(10 + 2 * task) + " " + line + " " + line + "\n");
  }
}

TEST_F(WorkerTest, ResultsThatWaitAreHandedInTogether) {
  scheduler_.holdFinishes(true);
  const auto job = scheduler_.submit(TestScheduler::scripts(40, "touch " + marker("ran-{index}")));
  start();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!std::filesystem::exists(marker("ran-39")))
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
  scheduler_.holdFinishes(false);
  ASSERT_TRUE(scheduler_.waitUntilEnded(job));
  EXPECT_EQ(scheduler_.count(job, TaskState::succeeded), 40U);
  EXPECT_LT(scheduler_.finishes(), 10U);
}

TEST_F(WorkerTest, TasksRunSideBySideWithinItsCores) {
  auto pair = TestScheduler::scripts(2, "touch " + marker("at-{index}") + "; " + untilThere("go"));
  const auto side = scheduler_.submit(pair);
  start(2);
  ASSERT_TRUE(scheduler_.waitForState(side, TaskState::running, 2));
  const auto third = scheduler_.submit(TestScheduler::scripts(1, "test -e " + marker("go")));
  make("go");
  ASSERT_TRUE(scheduler_.waitUntilEnded(third));
  EXPECT_EQ(scheduler_.count(third, TaskState::succeeded), 1U);
  ASSERT_TRUE(scheduler_.waitUntilEnded(side));
  EXPECT_EQ(scheduler_.count(side, TaskState::succeeded), 2U);
}

TEST_F(WorkerTest, LargeOutputsArePutBeforeTheyAreNamed) {
  const auto job = scheduler_.submit(TestScheduler::scripts(3, "head -c 200000 /dev/zero | tr '\\0' {index}"));
  start();
  ASSERT_TRUE(scheduler_.waitUntilEnded(job));
  for (const char digit : {'0', '1', '2'})
    EXPECT_TRUE(scheduler_.blobs().has(std::string(200'000, digit)));
}

TEST_F(WorkerTest, AnInputOfManyTasksTravelsOnce) {
  const std::string bytes(100'000, 'i');
  scheduler_.blobs().add(bytes);
  auto array = TestScheduler::scripts(20, "test $(wc -c <in) = 100000");
  auto* input = array.mutable_command()->add_inputs();
  input->set_name("in");
  *input->mutable_content() = toolbox::LocalBlob::ofBytes(bytes).described();
  const auto job = scheduler_.submit(array);
  start();
  ASSERT_TRUE(scheduler_.waitUntilEnded(job));
  EXPECT_EQ(scheduler_.count(job, TaskState::succeeded), 20U);
  EXPECT_EQ(scheduler_.blobs().gets(), 1U);
}

TEST_F(WorkerTest, WhileTheServiceIsAwayTasksRunOnAndAreHandedInLater) {
  const auto job = scheduler_.submit(TestScheduler::scripts(2, untilThere("go") + "; touch " + marker("done-{index}")));
  start();
  ASSERT_TRUE(scheduler_.waitForState(job, TaskState::running, 2));
  scheduler_.cut();
  scheduler_.restart();
  make("go");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!std::filesystem::exists(marker("done-0")) || !std::filesystem::exists(marker("done-1")))
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
  EXPECT_TRUE(scheduler_.accepted().empty());
  scheduler_.comeBack();
  ASSERT_TRUE(scheduler_.waitUntilEnded(job));
  EXPECT_EQ(scheduler_.accepted().size(), 2U);
  EXPECT_EQ(scheduler_.count(job, TaskState::succeeded), 2U);
}

TEST_F(WorkerTest, ManyCutsLoseAndRepeatNothing) {
  const auto job = scheduler_.submit(TestScheduler::scripts(200, "exit 0"));
  start();
  for (std::uint64_t ended = 10; ended <= 150; ended += 20) {
    ASSERT_TRUE(scheduler_.waitForState(job, TaskState::succeeded, ended));
    scheduler_.cut(false);
  }
  ASSERT_TRUE(scheduler_.waitUntilEnded(job));
  EXPECT_EQ(scheduler_.count(job, TaskState::succeeded), 200U);
  for (const auto& [task, results] : scheduler_.accepted())
    EXPECT_EQ(results.size(), 1U) << task;
}

TEST_F(WorkerTest, AVerdictOfLaterIsAskedForAgain) {
  scheduler_.answerLater(2);
  const auto job = scheduler_.submit(TestScheduler::scripts(2, "exit 0"));
  start();
  ASSERT_TRUE(scheduler_.waitUntilEnded(job));
  EXPECT_EQ(scheduler_.accepted().size(), 2U);
}

TEST_F(WorkerTest, WhatIsCancelledIsStopped) {
  const auto job = scheduler_.submit(TestScheduler::scripts(1, "sleep 600"));
  start();
  ASSERT_TRUE(scheduler_.waitForState(job, TaskState::running));
  scheduler_.cancel(job);
  const auto next = scheduler_.submit([] {
    auto array = TestScheduler::scripts(1, "exit 0");
    array.mutable_needs()->set_cores(2);
    return array;
  }());
  ASSERT_TRUE(scheduler_.waitUntilEnded(next));
  EXPECT_EQ(scheduler_.count(next, TaskState::succeeded), 1U);
}

TEST_F(WorkerTest, StopHandsBackWhatRunsAndWhatWaits) {
  const auto job = scheduler_.submit(TestScheduler::scripts(5, "sleep 600"));
  start(2);
  ASSERT_TRUE(scheduler_.waitForState(job, TaskState::running, 2));
  worker_->stop();
  ASSERT_TRUE(waitForEnd());
  EXPECT_EQ(scheduler_.count(job, TaskState::ready), 5U);
  for (const auto& [task, results] : scheduler_.accepted())
    EXPECT_EQ(results.at(0).ending().reason(), Ending::REASON_HANDED_BACK);
}

TEST_F(WorkerTest, ATaskThatMustNotRunTwiceIsReportedBeforeItRuns) {
  scheduler::ledger::RetryRules once;
  once.workerLost.limit = 0;
  const auto job = scheduler_.submit(TestScheduler::scripts(1, "touch " + marker("ran")), once);
  start();
  ASSERT_TRUE(scheduler_.waitUntilEnded(job));
  const auto renewals = scheduler_.renewals();
  EXPECT_TRUE(std::any_of(renewals.begin(), renewals.end(),
                          [](const auto& renewal) { return renewal.held_size() == 1 && renewal.held(0).started(); }));
  EXPECT_TRUE(std::filesystem::exists(marker("ran")));
}

TEST_F(WorkerTest, WhatRunsIsToldBeforeTheNextRenewalIsDue) {
  scheduler_.setRenewEvery(std::chrono::hours(1));
  const auto job = scheduler_.submit(TestScheduler::scripts(1, untilThere("go")));
  start(1);
  EXPECT_TRUE(scheduler_.waitForState(job, TaskState::running));
  make("go");
  ASSERT_TRUE(scheduler_.waitUntilEnded(job));
}

TEST_F(WorkerTest, OutputThatSomebodyReadsComesWithTheRenewals) {
  const auto job = scheduler_.submit(TestScheduler::scripts(1, "echo hello; " + untilThere("go")));
  start();
  ASSERT_TRUE(scheduler_.waitForState(job, TaskState::running));
  zksmessages::RenewReply::Wanted wanted;
  wanted.mutable_attempt()->set_number(1);
  wanted.set_stream(OutputFile::STREAM_STANDARD_OUTPUT);
  wanted.set_offset(1);
  scheduler_.watch(wanted);
  const auto hasOutput = [](const zksmessages::RenewRequest& renewal) {
    return renewal.output_size() == 1 && renewal.output(0).content() == "ello\n" && renewal.output(0).offset() == 1;
  };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  for (;;) {
    const auto renewals = scheduler_.renewals();
    if (std::any_of(renewals.begin(), renewals.end(), hasOutput))
      break;
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    std::this_thread::yield();
  }
  make("go");
  ASSERT_TRUE(scheduler_.waitUntilEnded(job));
}

TEST_F(WorkerTest, ItEndsWhenNothingRunsAndTheServiceIsAway) {
  awayLimit_ = std::chrono::milliseconds(50);
  scheduler_.cut();
  start();
  EXPECT_TRUE(waitForEnd());
}

TEST_F(WorkerTest, ItEndsWhenThereIsNothingToDo) {
  idleLimit_ = std::chrono::milliseconds(50);
  const auto job = scheduler_.submit(TestScheduler::scripts(3, "exit 0"));
  start();
  ASSERT_TRUE(scheduler_.waitUntilEnded(job));
  EXPECT_TRUE(waitForEnd());
}

}  // namespace
}  // namespace parallel::worker
