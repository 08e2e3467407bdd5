#include "worker/ResultQueue.h"

#include <gtest/gtest.h>

#include "platform/files/testing/TemporaryDirectory.h"

namespace parallel::worker {
namespace {

AttemptOutcome outcomeOf(std::uint64_t number, const std::string& message = "") {
  AttemptOutcome outcome;
  outcome.result.mutable_attempt()->set_number(number);
  outcome.result.mutable_info()->set_message(message);
  return outcome;
}

std::vector<std::uint64_t> numbersOf(const std::vector<AttemptOutcome>& outcomes) {
  std::vector<std::uint64_t> numbers;
  for (const AttemptOutcome& outcome : outcomes)
    numbers.push_back(outcome.result.attempt().number());
  return numbers;
}

TEST(ResultQueue, WhatDoesNotFitMemoryWaitsOnDisk) {
  const files::testing::TemporaryDirectory files;
  ResultQueue queue(files.path(), 3000);
  for (std::uint64_t number = 1; number <= 6; ++number)
    queue.push(outcomeOf(number, std::string(1000, 'm')));
  EXPECT_EQ(queue.onDisk(), 4U);
  const auto all = queue.pop(100, 1 << 20);
  EXPECT_EQ(numbersOf(all), (std::vector<std::uint64_t>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(all[5].result.info().message(), std::string(1000, 'm'));
  EXPECT_TRUE(queue.empty());
  EXPECT_TRUE(std::filesystem::is_empty(files.path()));
}

TEST(ResultQueue, ABatchIsBounded) {
  const files::testing::TemporaryDirectory files;
  ResultQueue queue(files.path(), 1 << 20);
  for (std::uint64_t number = 1; number <= 4; ++number)
    queue.push(outcomeOf(number, std::string(1000, 'm')));
  EXPECT_EQ(numbersOf(queue.pop(100, 10)), (std::vector<std::uint64_t>{1}));
  EXPECT_EQ(numbersOf(queue.pop(100, 2500)), (std::vector<std::uint64_t>{2, 3}));
  EXPECT_EQ(numbersOf(queue.pop(1, 2500)), (std::vector<std::uint64_t>{4}));
}

TEST(ResultQueue, WhatWasPutBackComesFirst) {
  const files::testing::TemporaryDirectory files;
  ResultQueue queue(files.path(), 1 << 20);
  for (std::uint64_t number = 1; number <= 3; ++number)
    queue.push(outcomeOf(number));
  queue.putBack(queue.pop(2, 1 << 20));
  EXPECT_EQ(numbersOf(queue.pop(9, 1 << 20)), (std::vector<std::uint64_t>{1, 2, 3}));
}

}  // namespace
}  // namespace parallel::worker
