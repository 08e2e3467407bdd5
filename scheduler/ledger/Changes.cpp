#include "scheduler/ledger/Changes.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

namespace parallel::scheduler::ledger {
namespace {

constexpr TaskNumber kLastTask = std::numeric_limits<TaskNumber>::max();

template <class Map, class Key>
void eraseFromTo(Map& rows, const Key& from, const Key& to) {
  rows.erase(rows.lower_bound(from), rows.upper_bound(to));
}

// What was to be written for a job that is then deleted is not to be written at all.
void forgetJob(Changes& changes, JobId job) {
  changes.jobs.erase(job);
  changes.progress.erase(job);
  eraseFromTo(changes.rounds, std::pair(job, std::uint32_t{0}),
              std::pair(job, std::numeric_limits<std::uint32_t>::max()));
  eraseFromTo(changes.arrays, TaskKey{job, 0}, TaskKey{job, kLastTask});
  eraseFromTo(changes.ranges, TaskKey{job, 0}, TaskKey{job, kLastTask});
  eraseFromTo(changes.tasks, TaskKey{job, 0}, TaskKey{job, kLastTask});
  eraseFromTo(changes.attempts, AttemptKey{job, 0, 0},
              AttemptKey{job, kLastTask, std::numeric_limits<AttemptNumber>::max()});
}

// The rows of `later`, and of `earlier` those that it does not speak of. Costs what is later: the earlier changes may be
// those of a thousand events.
template <class Map>
void mergeRows(Map& earlier, Map& later) {
  for (auto& [key, row] : later)
    earlier.insert_or_assign(key, std::move(row));
}

template <class List>
void append(List& list, const List& more) {
  list.insert(list.end(), more.begin(), more.end());
}

}  // namespace

bool Changes::empty() const {
  return deletedJobs.empty() && droppedTasks.empty() && !counters && keys.empty() && jobs.empty() && progress.empty() &&
         rounds.empty() && arrays.empty() && ranges.empty() && tasks.empty() && attempts.empty() && workers.empty();
}

void Changes::merge(Changes later) {
  for (const JobId job : later.deletedJobs)
    forgetJob(*this, job);
  for (const auto& [job, span] : later.droppedTasks)
    eraseFromTo(tasks, TaskKey{job, span.first}, TaskKey{job, span.last});
  append(deletedJobs, later.deletedJobs);
  append(droppedTasks, later.droppedTasks);
  if (later.counters)
    counters = later.counters;
  mergeRows(keys, later.keys);
  mergeRows(jobs, later.jobs);
  mergeRows(progress, later.progress);
  mergeRows(rounds, later.rounds);
  mergeRows(arrays, later.arrays);
  mergeRows(ranges, later.ranges);
  mergeRows(tasks, later.tasks);
  mergeRows(attempts, later.attempts);
  mergeRows(workers, later.workers);
}

}  // namespace parallel::scheduler::ledger
