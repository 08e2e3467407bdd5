#include "cli/jobTexts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <ctime>

namespace zks {
namespace {

using parallel::zksmessages::Ending;
using parallel::zksmessages::JobSummary;
using parallel::zksmessages::Resources;
using parallel::zksmessages::TaskCounts;

TEST(JobTexts, AJobsStateFollowsFromItsTasks) {
  JobSummary job;
  EXPECT_EQ(jobStateText(job), "open");
  job.mutable_counts()->set_waiting(1);
  EXPECT_EQ(jobStateText(job), "waiting");
  job.mutable_counts()->set_ready(1);
  EXPECT_EQ(jobStateText(job), "ready");
  job.set_held(true);
  EXPECT_EQ(jobStateText(job), "held");
  job.mutable_counts()->set_granted(1);
  EXPECT_EQ(jobStateText(job), "running");

  JobSummary ended;
  ended.set_ended(1);
  ended.mutable_counts()->set_succeeded(2);
  EXPECT_EQ(jobStateText(ended), "succeeded");
  EXPECT_TRUE(allSucceeded(ended));
  ended.mutable_counts()->set_skipped(1);
  EXPECT_EQ(jobStateText(ended), "skipped");
  EXPECT_FALSE(allSucceeded(ended));
  ended.mutable_counts()->set_cancelled(1);
  EXPECT_EQ(jobStateText(ended), "cancelled");
  ended.mutable_counts()->set_failed(1);
  EXPECT_EQ(jobStateText(ended), "failed");
}

TEST(JobTexts, OnlyTheStatesThatTasksAreInAreCounted) {
  TaskCounts counts;
  EXPECT_EQ(countsText(counts), "0 tasks");
  counts.set_running(1);
  EXPECT_EQ(countsText(counts), "1 task: 1 running");
  counts.set_succeeded(3);
  counts.set_skipped(2);
  EXPECT_EQ(countsText(counts), "6 tasks: 1 running, 3 succeeded, 2 skipped");
  EXPECT_EQ(countEnded(counts), 5U);
  EXPECT_EQ(
      countsJson(counts),
      R"({"waiting": 0, "ready": 0, "granted": 0, "running": 1, "succeeded": 3, "failed": 0, "cancelled": 0, "skipped": 2})");
}

TEST(JobTexts, EachReasonHasItsWordAndItsText) {
  const auto* reasons = Ending::Reason_descriptor();
  for (int i = 0; i < reasons->value_count(); ++i) {
    const auto reason = static_cast<Ending::Reason>(reasons->value(i)->number());
    std::string name = reasons->value(i)->name().substr(std::string("REASON_").size());
    for (char& c : name)
      c = static_cast<char>(std::tolower(c));
    EXPECT_EQ(reasonWord(reason), reason == Ending::REASON_UNSPECIFIED ? "none" : name);
    Ending ending;
    ending.set_reason(reason);
    EXPECT_EQ(endingText(ending).empty(), reason == Ending::REASON_UNSPECIFIED) << name;
  }
  Ending ending;
  ending.set_reason(Ending::REASON_SIGNAL);
  ending.set_code(9);
  EXPECT_EQ(endingText(ending), "signal 9 (Killed)");
}

TEST(JobTexts, EachStateHasItsName) {
  const auto* states = parallel::zksmessages::TaskState_descriptor();
  for (int i = 1; i < states->value_count(); ++i) {
    std::string name = states->value(i)->name().substr(std::string("TASK_STATE_").size());
    for (char& c : name)
      c = static_cast<char>(std::tolower(c));
    EXPECT_EQ(stateText(static_cast<parallel::zksmessages::TaskState>(states->value(i)->number())), name);
  }
}

TEST(JobTexts, TimesAreTheUsersOrUtc) {
  ::setenv("TZ", "UTC-1", 1);
  ::tzset();
  EXPECT_EQ(localTimeText(1'795'352'709'123), "2026-11-22 14:05:09");
  EXPECT_EQ(localTimeText(0), "");
  EXPECT_EQ(utcTimeText(1'795'352'709'023), "2026-11-22T13:05:09.023Z");
  ::unsetenv("TZ");
  ::tzset();
}

TEST(JobTexts, DurationsHaveTwoUnitsAtMost) {
  EXPECT_EQ(durationText(0.25), "0.25 s");
  EXPECT_EQ(durationText(9.5), "9.5 s");
  EXPECT_EQ(durationText(45.9), "45 s");
  EXPECT_EQ(durationText(60), "1 min");
  EXPECT_EQ(durationText(90), "1 min 30 s");
  EXPECT_EQ(durationText(7500), "2 h 5 min");
  EXPECT_EQ(durationText(3600 * 76), "3 d 4 h");
}

TEST(JobTexts, ResourcesAreNamedInOrder) {
  Resources resources;
  resources.set_cores(1);
  EXPECT_EQ(resourcesText(resources), "1 core");
  resources.set_cores(2);
  resources.set_memory_bytes(std::uint64_t{4} << 30U);
  (*resources.mutable_named())["gpu"] = 1;
  (*resources.mutable_named())["fpga"] = 3;
  EXPECT_EQ(resourcesText(resources), "2 cores, 4.0 GiB, fpga=3, gpu=1");
  EXPECT_EQ(resourcesJson(resources), R"({"cores": 2, "memory_bytes": 4294967296, "named": {"fpga": 3, "gpu": 1}})");
}

TEST(JobTexts, AWaitShowsAsMuchAsThereIsRoomFor) {
  TaskCounts counts;
  counts.set_ready(50);
  counts.set_running(2);
  counts.set_succeeded(147);
  counts.set_failed(1);
  EXPECT_EQ(waitText("job 7", counts, 0, 1, 200),
            "job 7: 148 of 200, 2 running, 1 not succeeded [=================>      ]");
  EXPECT_EQ(waitText("job 7", counts, 10, 4, 200),
            "job 7: 148 of 200, 2 running, 1 not succeeded [=================>      ] 2.50/s, 20 s left");
  EXPECT_EQ(waitText("job 7", counts, 10, 4, 64), "job 7: 148 of 200, 2 running, 1 not succeeded 2.50/s, 20 s left");
  EXPECT_EQ(waitText("job 7", counts, 10, 4, 50), "job 7: 148 of 200, 2 running, 1 not succeeded");
  EXPECT_EQ(waitText("job 7", counts, 10, 4, 20), "job 7: 148 of 200");
  EXPECT_EQ(waitText("job 7", counts, 10, 4, 5), "job 7");
}

}  // namespace
}  // namespace zks
