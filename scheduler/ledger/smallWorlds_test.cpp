// Small worlds, listed completely: every order of events, each of them after a crash, with workers that die,
// lines that lose answers and messages that come twice, up to a number of such troubles.
#include <gtest/gtest.h>

#include <iostream>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "scheduler/ledger/testing/SmallWorld.h"

namespace parallel::scheduler::ledger {
namespace {

using testing::SmallWorld;
using testing::Violation;

class Search {
 public:
  void explore(const SmallWorld& begin) {
    visit(begin, 0, "the beginning");
    while (!open_.empty() && !::testing::Test::HasFailure()) {
      const auto [world, place] = std::move(open_.back());
      open_.pop_back();
      for (const SmallWorld::Event& event : world.events())
        follow(world, place, event);
    }
    std::cout << "[          ] " << visits_.size() << " states, " << events_ << " events\n";
  }
  std::size_t stateCount() const { return visits_.size(); }

 private:
  // How a state was come to first.
  struct Visit {
    std::size_t from = 0;
    std::string event;
  };

  void follow(const SmallWorld& world, std::size_t place, const SmallWorld::Event& event) {
    ++events_;
    try {
      visit(world.after(event), place, event.name);
    } catch (const Violation& violation) {
      ADD_FAILURE() << violation.what() << " after, backwards:\n  " << event.name << storyOf(place);
    }
  }

  void visit(SmallWorld world, std::size_t from, const std::string& event) {
    if (!seen_.insert(std::hash<std::string>()(world.signature())).second)
      return;
    constexpr std::size_t kEach = 16;
    if (seen_.size() % kEach == 0)
      world.requireThatAllCanEnd();
    open_.emplace_back(std::move(world), visits_.size());
    visits_.push_back({from, event});
  }

  std::string storyOf(std::size_t place) const {
    std::string story;
    for (; place != 0; place = visits_[place].from)
      story += "\n  " + visits_[place].event;
    return story;
  }

  std::unordered_set<std::size_t> seen_;  // by the hash of the signature
  std::vector<Visit> visits_;
  std::vector<std::pair<SmallWorld, std::size_t>> open_;
  std::size_t events_ = 0;
};

SubmitJob jobOfOne(const std::string& key, std::vector<ArraySpec> arrays) {
  SubmitJob job;
  job.key = key;
  job.arrays = std::move(arrays);
  return job;
}

void expectNoViolation(const std::vector<SubmitJob>& jobs, int troubles) {
  Search search;
  search.explore(SmallWorld(jobs, troubles));
  EXPECT_GT(search.stateCount(), 1'000U);
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
