// The arrays that wait for tasks of one job.
#pragma once

#include <compare>
#include <map>
#include <set>
#include <vector>

#include "scheduler/ledger/Changes.h"

namespace parallel::scheduler::ledger {

class Dependents {
 public:
  // The array waits for these tasks of the job.
  void add(TaskSpan tasks, TaskKey array);
  // The array waits for the job as a whole.
  void addWholeJob(TaskKey array) { wholeJob_.insert(array); }
  // A job that is deleted waits for nothing.
  void dropJob(JobId job);

  // Each array that waits for one of these tasks, once.
  std::set<TaskKey> of(TaskSpan tasks) const;
  const std::set<TaskKey>& ofWholeJob() const { return wholeJob_; }

 private:
  // Most arrays wait for one task, and a job may have very many of those.
  std::multimap<TaskNumber, TaskKey> ofOneTask_;
  std::vector<std::pair<TaskSpan, TaskKey>> ofSpans_;
  std::set<TaskKey> wholeJob_;
};

}  // namespace parallel::scheduler::ledger
