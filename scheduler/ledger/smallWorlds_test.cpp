// Small worlds, listed completely: every order of events, each of them after a crash, with workers that die,
// lines that lose answers and messages that come twice, up to a number of such troubles.
#include <gtest/gtest.h>

#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "scheduler/ledger/testing/searchWorlds.h"

namespace parallel::scheduler::ledger {
namespace {

SubmitJob jobOfOne(const std::string& key, std::vector<ArraySpec> arrays) {
  SubmitJob job;
  job.key = key;
  job.arrays = std::move(arrays);
  return job;
}

void expectNoViolation(const std::vector<SubmitJob>& jobs, int troubles) {
  const testing::Found found = testing::searchWorlds(jobs, troubles);
  std::cout << "[          ] " << found.states << " states, " << found.events << " events\n";
  EXPECT_EQ(found.violation, "");
  EXPECT_GT(found.states, 1'000U);
}

TEST(SmallWorlds, TwoTasksThatAreTriedAgain) {
  ArraySpec array;
  array.count = 2;
  array.retries.exitCode.limit = 1;
  expectNoViolation({jobOfOne("job", {array})}, 0);
}

TEST(SmallWorlds, TwoTasksThatMustNotRunTwice) {
  ArraySpec array;
  array.count = 2;
  array.retries.workerLost.limit = 0;
  expectNoViolation({jobOfOne("job", {array})}, 1);
}

TEST(SmallWorlds, OneTaskThatManyTroublesMeet) {
  ArraySpec array;
  array.deathsAllowed = 1;
  expectNoViolation({jobOfOne("job", {array})}, 2);
}

TEST(SmallWorlds, OneTaskAfterAnother) {
  ArraySpec second;
  second.dependencies = {{Dependency::Kind::wholeJob, JobId{1}, 0}};
  expectNoViolation({jobOfOne("first", {ArraySpec{}}), jobOfOne("second", {second})}, 1);
}

}  // namespace
}  // namespace parallel::scheduler::ledger
