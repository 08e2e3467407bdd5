#include "scheduler/ledger/Changes.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "scheduler/ledger/Books.h"

namespace parallel::scheduler::ledger {
namespace {

template <class Number>
Number below(Number bound) {
  return *rc::gen::inRange<Number>(0, bound);
}

JobId anyJob() {
  return JobId{below<std::uint64_t>(2)};
}

void addAnyTask(Changes& changes) {
  const TaskKey key{anyJob(), below<TaskNumber>(3)};
  TaskRecord task{key.job, key.task};
  task.attempt = below<AttemptNumber>(100);
  task.state = TaskState{below<std::uint8_t>(kTaskStateCount)};
  changes.tasks[key] = below(3) > 0 ? std::optional(task) : std::nullopt;
}

void addAnyRow(Changes& changes) {
  const JobId job = anyJob();
  const auto number = below<std::uint64_t>(3);
  const bool isThere = below(3) > 0;
  switch (below(8)) {
    case 0:
      changes.counters = Counters{JobId{number}, WorkerId{number}, number};
      break;
    case 1:
      changes.keys["key " + std::to_string(number)] = {"key " + std::to_string(number), "digest", job};
      break;
    case 2:
      changes.jobs[job] = {job, "key", "name " + std::to_string(number), {}, {}};
      changes.arrays[{job, number}] = {job, {number, number}};
      break;
    case 3:
      changes.progress[job] = {job, number};
      changes.rounds[{job, std::uint32_t(number)}] = {job, std::uint32_t(number), "retry", {}};
      break;
    case 4:
      changes.ranges[{job, number}] =
          isThere ? std::optional(RangeRecord{job, {0, number}, TaskState::ready}) : std::nullopt;
      break;
    case 5:
      changes.attempts[{job, number, number}] =
          isThere ? std::optional(AttemptRecord{{job, number, number}, WorkerId{1}, below<std::uint64_t>(9)})
                  : std::nullopt;
      break;
    case 6:
      changes.workers[WorkerId{number}] = {WorkerId{number}, "key", below(2) > 0 ? "name" : "other"};
      break;
    default:
      addAnyTask(changes);
  }
}

Changes anyChanges() {
  Changes changes;
  if (below(6) == 0)
    changes.deletedJobs.push_back(anyJob());
  if (below(4) == 0)
    changes.droppedTasks.push_back({anyJob(), {below<TaskNumber>(2), 2}});
  const int rows = below(6);
  for (int row = 0; row < rows; ++row)
    addAnyRow(changes);
  return changes;
}

TEST(Changes, NoneAreEmpty) {
  EXPECT_TRUE(Changes().empty());
  Changes changes;
  changes.workers[WorkerId{1}] = {};
  EXPECT_FALSE(changes.empty());
}

RC_GTEST_PROP(ChangesProperty, MergedDoWhatEachDoesInItsTurn, ()) {
  Books one;
  Books merged;
  Changes all;
  for (int event = 0; event < 5; ++event) {
    const Changes changes = anyChanges();
    one.apply(changes);
    all.merge(changes);
  }
  merged.apply(all);
  RC_ASSERT(one.tables() == merged.tables());
}

TEST(Books, GiveBackOnlyWhatHasNotEnded) {
  Changes changes;
  changes.tasks[{JobId{1}, 0}] = TaskRecord{JobId{1}, 0, TaskState::succeeded};
  changes.tasks[{JobId{1}, 1}] = TaskRecord{JobId{1}, 1, TaskState::running};
  AttemptRecord ended{{JobId{1}, 0, 1}};
  ended.state = AttemptState::ended;
  changes.attempts[ended.key] = ended;
  const AttemptRecord lapsed{{JobId{1}, 1, 2}, WorkerId{1}, 1, 1, AttemptState::lapsed};
  changes.attempts[lapsed.key] = lapsed;
  changes.workers[WorkerId{1}] = {WorkerId{1}, "a", "", {}, WorkerState::gone};
  changes.workers[WorkerId{2}] = {WorkerId{2}, "b", "", {}, WorkerState::unreachable};
  Books books;
  books.apply(changes);

  const Kept kept = books.kept();
  ASSERT_EQ(kept.tasks.size(), 1U);
  EXPECT_EQ(kept.tasks[0].task, 1U);
  EXPECT_EQ(kept.attempts, std::vector{lapsed});
  ASSERT_EQ(kept.workers.size(), 1U);
  EXPECT_EQ(kept.workers[0].id, WorkerId{2});
}

TEST(Books, FindWhatHasEnded) {
  Changes changes;
  for (const TaskNumber task : {2, 3, 5, 7})
    changes.tasks[{JobId{1}, task}] = TaskRecord{JobId{1}, task, task == 5 ? TaskState::succeeded : TaskState::failed};
  Books books;
  books.apply(changes);
  EXPECT_EQ(books.endedTasks(JobId{1}, {0, 6}, TaskState::failed).spans(), (std::vector<TaskSpan>{{2, 3}}));
  EXPECT_TRUE(books.endedTasks(JobId{2}, {0, 6}, TaskState::failed).empty());
  EXPECT_EQ(books.attempt({JobId{1}, 2, 1}), std::nullopt);
}

}  // namespace
}  // namespace parallel::scheduler::ledger
