#include "scheduler/ledger/Resources.h"

#include <gtest/gtest.h>

namespace parallel::scheduler::ledger {
namespace {

const Resources kWorker{4, 1000, {{"gpu", 2}}};

TEST(Resources, CoverWhatIsNoMoreThanTheyAre) {
  EXPECT_TRUE(kWorker.covers({}));
  EXPECT_TRUE(kWorker.covers(kWorker));
  EXPECT_TRUE(kWorker.covers({1, 0, {{"licence", 0}}}));
}

TEST(Resources, CoverNothingOfWhichOneThingIsMissing) {
  EXPECT_FALSE(kWorker.covers({5, 0, {}}));
  EXPECT_FALSE(kWorker.covers({1, 1001, {}}));
  EXPECT_FALSE(kWorker.covers({1, 0, {{"gpu", 3}}}));
  EXPECT_FALSE(kWorker.covers({1, 0, {{"licence", 1}}}));
}

TEST(Resources, AreLessByWhatIsTaken) {
  Resources left = kWorker;
  left.subtract({3, 400, {{"gpu", 2}, {"licence", 0}}});
  EXPECT_EQ(left, (Resources{1, 600, {{"gpu", 0}}}));
}

TEST(Resources, UpToOthersAreTheLesserOfEachThing) {
  EXPECT_EQ(kWorker.upTo({8, 500, {{"gpu", 1}, {"licence", 1}}}), (Resources{4, 500, {{"gpu", 1}}}));
  EXPECT_EQ(kWorker.upTo({}), Resources());
}

}  // namespace
}  // namespace parallel::scheduler::ledger
