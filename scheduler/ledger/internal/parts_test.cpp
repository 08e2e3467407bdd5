// The small parts of the machine by themselves.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "scheduler/ledger/internal/Delays.h"
#include "scheduler/ledger/internal/Dependents.h"
#include "scheduler/ledger/internal/LeaseClock.h"
#include "scheduler/ledger/internal/Leases.h"
#include "scheduler/ledger/internal/ReadyQueue.h"

namespace parallel::scheduler::ledger {
namespace {

using namespace std::chrono_literals;

TEST(LeaseClock, CountsTheTimeInWhichTheServiceShowsItsClock) {
  LeaseClock clock(10s);
  clock.advance(12s);
  clock.advance(15s);
  EXPECT_EQ(clock.time(), 5s);
}

TEST(LeaseClock, CountsLittleOfAGap) {
  LeaseClock clock(0s);
  clock.advance(1h);
  EXPECT_EQ(clock.time(), LeaseClock::kLongestStep);
  clock.advance(1h + 1s);
  EXPECT_EQ(clock.time(), LeaseClock::kLongestStep + 1s);
}

TEST(LeaseClock, DoesNotGoBack) {
  LeaseClock clock(10s);
  clock.advance(5s);
  clock.advance(11s);
  EXPECT_EQ(clock.time(), 1s);
}

TEST(LeaseList, LapseInTheOrderOfTheirRenewal) {
  constexpr WorkerId kOne{1};
  constexpr WorkerId kTwo{2};
  Leases leases;
  leases.renew(kOne, 0s);
  leases.renew(kTwo, 1s);
  leases.renew(kOne, 2s);
  EXPECT_TRUE(leases.takeLapsed(Leases::kLength).empty());
  EXPECT_EQ(leases.takeLapsed(Leases::kLength + 1s), std::vector{kTwo});
  leases.drop(kOne);
  EXPECT_TRUE(leases.takeLapsed(Leases::kLength + 1h).empty());
}

TEST(Delays, EndInTheOrderOfTheirTimes) {
  const TaskKey early{JobId{2}, 0};
  const TaskKey late{JobId{1}, 0};
  Delays delays;
  delays.add(late, 9s);
  delays.add(early, 1h);
  delays.add(early, 3s);
  EXPECT_EQ(delays.nextEnd(), 3s);
  EXPECT_EQ(delays.takeEnded(9s), (std::vector{early, late}));
  EXPECT_EQ(delays.nextEnd(), std::nullopt);
}

TEST(Delays, TheLongestEndsAtTheEndOfTime) {
  const Moment now{1s, {}};
  EXPECT_EQ(endOfDelay(now, 2s), 3s);
  EXPECT_EQ(endOfDelay(now, Duration::max()), Duration::max());
}

TEST(ReadyQueue, GreaterPriorityThenFewerCoresThenTheOlderJob) {
  const std::vector<Turn> inOrder{{2, 9, JobId{9}}, {1, 0, JobId{5}}, {1, 3, JobId{1}}, {1, 3, JobId{2}}};
  for (std::size_t one = 0; one < inOrder.size(); ++one) {
    for (std::size_t other = 0; other < inOrder.size(); ++other)
      EXPECT_EQ(inOrder[one] < inOrder[other], one < other);
  }
}

TEST(ReadyQueue, TheFirstTurnIsThatOfAllDemandsThatFit) {
  const Demand small{{1, 0, {}}, false};
  const Demand large{{8, 0, {}}, false};
  const Demand alone{{1, 0, {}}, true};
  ReadyQueue queue;
  queue.insert(small, {0, 0, JobId{3}});
  queue.insert(large, {0, 0, JobId{2}});
  queue.insert(alone, {0, 0, JobId{1}});
  EXPECT_EQ(queue.next({8, 0, {}}, true)->turn.job, JobId{1});
  EXPECT_EQ(queue.next({8, 0, {}}, false)->turn.job, JobId{2});
  EXPECT_EQ(queue.next({1, 0, {}}, false)->turn.job, JobId{3});
  EXPECT_EQ(queue.nextAlone({1, 0, {}})->turn.job, JobId{1});
  queue.erase(alone, {0, 0, JobId{1}});
  EXPECT_FALSE(queue.nextAlone({1, 0, {}}));
  EXPECT_FALSE(queue.next({0, 0, {}}, true));
}

TEST(Dependents, AreThoseOfTheTasksOnce) {
  const TaskKey one{JobId{7}, 0};
  const TaskKey other{JobId{8}, 4};
  Dependents dependents;
  dependents.add({5, 5}, one);
  dependents.add({3, 9}, one);
  dependents.add({6, 6}, other);
  dependents.addWholeJob(other);
  EXPECT_EQ(dependents.of({5, 5}), std::set{one});
  EXPECT_EQ(dependents.of({0, 6}), (std::set{one, other}));
  EXPECT_TRUE(dependents.of({10, 10}).empty());
  EXPECT_EQ(dependents.ofWholeJob(), std::set{other});
  dependents.dropJob(JobId{8});
  EXPECT_EQ(dependents.of({0, 6}), std::set{one});
  EXPECT_TRUE(dependents.ofWholeJob().empty());
}

}  // namespace
}  // namespace parallel::scheduler::ledger
