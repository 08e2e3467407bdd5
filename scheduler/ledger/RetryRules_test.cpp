#include "scheduler/ledger/RetryRules.h"

#include <gtest/gtest.h>

namespace parallel::scheduler::ledger {
namespace {

using std::chrono::seconds;

TEST(RetryRule, DelayDoublesUpToTheLongest) {
  const RetryRule rule{10, seconds(3), seconds(20)};
  EXPECT_EQ(rule.delayBefore(1), seconds(3));
  EXPECT_EQ(rule.delayBefore(2), seconds(6));
  EXPECT_EQ(rule.delayBefore(3), seconds(12));
  EXPECT_EQ(rule.delayBefore(4), seconds(20));
  EXPECT_EQ(rule.delayBefore(RetryRule::kNoLimit), seconds(20));
}

TEST(RetryRule, DelayWithoutALongestStopsAtWhatADurationHolds) {
  const RetryRule rule{10, std::chrono::hours(1), {}};
  EXPECT_EQ(rule.delayBefore(3), std::chrono::hours(4));
  EXPECT_EQ(rule.delayBefore(1000), Duration::max());
}

TEST(RetryRule, FirstDelayIsNoLongerThanTheLongest) {
  EXPECT_EQ((RetryRule{1, seconds(9), seconds(2)}.delayBefore(1)), seconds(2));
}

TEST(RetryRule, NoFirstDelayIsNoDelay) {
  EXPECT_EQ((RetryRule{5, {}, {}}.delayBefore(5)), Duration::zero());
}

TEST(RetryRules, EachReasonHasItsRule) {
  const RetryRules rules;
  EXPECT_EQ(rules.find({EndReason::exitCode, 1}), &rules.exitCode);
  EXPECT_EQ(rules.find({EndReason::signal, 9}), &rules.signal);
  EXPECT_EQ(rules.find({EndReason::outOfMemory}), &rules.outOfMemory);
  EXPECT_EQ(rules.find({EndReason::timeLimit}), &rules.timeLimit);
  EXPECT_EQ(rules.find({EndReason::notStarted}), &rules.notStarted);
  EXPECT_EQ(rules.find({EndReason::workerLost}), &rules.workerLost);
  EXPECT_EQ(rules.find({EndReason::tookWorkerDown}), nullptr);
  EXPECT_EQ(rules.find({EndReason::cancelled}), nullptr);
}

TEST(RetryRules, OnlyTheExitCodesNamedAreRetried) {
  RetryRules rules;
  rules.exitCodes = {75, 111};
  EXPECT_EQ(rules.find({EndReason::exitCode, 75}), &rules.exitCode);
  EXPECT_EQ(rules.find({EndReason::exitCode, 1}), nullptr);
}

}  // namespace
}  // namespace parallel::scheduler::ledger
