#include "scheduler/ledger/TaskSet.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <map>
#include <set>
#include <utility>
#include <vector>

namespace parallel::scheduler::ledger {
namespace {

constexpr TaskNumber kWorldSize = 12;

// The spans as somebody knows them who is only told of changes.
class Mirror final : public TaskSet::Observer {
 public:
  void erased(TaskNumber last) override { spans_.erase(last); }
  void put(TaskSpan span) override { spans_[span.last] = span; }
  std::vector<TaskSpan> spans() const {
    std::vector<TaskSpan> all;
    for (const auto& [last, span] : spans_)
      all.push_back(span);
    return all;
  }

 private:
  std::map<TaskNumber, TaskSpan> spans_;
};

std::vector<TaskSpan> spansOf(const std::set<TaskNumber>& tasks) {
  std::vector<TaskSpan> spans;
  for (const TaskNumber task : tasks) {
    if (!spans.empty() && spans.back().last + 1 == task)
      spans.back().last = task;
    else
      spans.push_back({task, task});
  }
  return spans;
}

TaskSpan anySpan() {
  const auto first = *rc::gen::inRange<TaskNumber>(0, kWorldSize);
  return {first, *rc::gen::inRange<TaskNumber>(first, kWorldSize)};
}

TEST(TaskSet, AMillionTasksAreOneSpan) {
  const TaskSet set(TaskSpan{0, 999'999});
  EXPECT_EQ(set.count(), 1'000'000U);
  EXPECT_EQ(set.spans(), (std::vector<TaskSpan>{{0, 999'999}}));
}

TEST(TaskSet, TakingTheFirstTaskIsOneChange) {
  struct Counter final : TaskSet::Observer {
    void erased(TaskNumber) override { ADD_FAILURE() << "no span went"; }
    void put(TaskSpan span) override { spans.push_back(span); }
    std::vector<TaskSpan> spans;
  } counter;
  TaskSet set(TaskSpan{0, 9});
  set.remove({0, 0}, &counter);
  EXPECT_EQ(counter.spans, (std::vector<TaskSpan>{{1, 9}}));
}

TEST(TaskSet, TheGreatestNumberIsATaskLikeAnyOther) {
  constexpr TaskNumber kGreatest = ~TaskNumber{0};
  TaskSet set;
  set.add(TaskSpan{kGreatest, kGreatest});
  set.add(TaskSpan{kGreatest - 1, kGreatest});
  EXPECT_EQ(set.spans(), (std::vector<TaskSpan>{{kGreatest - 1, kGreatest}}));
  set.remove(TaskSpan{kGreatest, kGreatest});
  EXPECT_EQ(set.spans(), (std::vector<TaskSpan>{{kGreatest - 1, kGreatest - 1}}));
}

RC_GTEST_PROP(TaskSetProperty, HoldsWhatAPlainSetHolds, ()) {
  TaskSet set;
  Mirror mirror;
  std::set<TaskNumber> plain;
  const auto steps = *rc::gen::inRange(0, 30);
  for (int step = 0; step < steps; ++step) {
    const TaskSpan span = anySpan();
    const bool adds = *rc::gen::arbitrary<bool>();
    for (TaskNumber task = span.first; task <= span.last; ++task) {
      if (adds)
        plain.insert(task);
      else
        plain.erase(task);
    }
    if (adds)
      set.add(span, &mirror);
    else
      set.remove(span, &mirror);
    RC_ASSERT(set.spans() == spansOf(plain));
    RC_ASSERT(mirror.spans() == set.spans());
    RC_ASSERT(set.count() == plain.size());
    RC_ASSERT(set.empty() == plain.empty());
    if (!plain.empty())
      RC_ASSERT(set.front() == *plain.begin());
  }
  for (TaskNumber task = 0; task < kWorldSize; ++task)
    RC_ASSERT(set.contains(task) == plain.contains(task));
  const TaskSpan bounds = anySpan();
  std::erase_if(plain, [bounds](TaskNumber task) { return !bounds.contains(task); });
  RC_ASSERT(set.within(bounds) == spansOf(plain));
  RC_ASSERT(set.intersection(TaskSet(bounds)).spans() == spansOf(plain));
}

RC_GTEST_PROP(TaskSetProperty, SetsAddAndRemoveSets, ()) {
  TaskSet one;
  TaskSet other;
  std::set<TaskNumber> united;
  std::set<TaskNumber> left;
  for (TaskNumber task = 0; task < kWorldSize; ++task) {
    const auto [inOne, inOther] = *rc::gen::arbitrary<std::pair<bool, bool>>();
    if (inOne)
      one.add(TaskSpan{task, task});
    if (inOther)
      other.add(TaskSpan{task, task});
    if (inOne || inOther)
      united.insert(task);
    if (inOne && !inOther)
      left.insert(task);
  }
  TaskSet sum = one;
  sum.add(other);
  RC_ASSERT(sum.spans() == spansOf(united));
  one.remove(other);
  RC_ASSERT(one.spans() == spansOf(left));
}

}  // namespace
}  // namespace parallel::scheduler::ledger
