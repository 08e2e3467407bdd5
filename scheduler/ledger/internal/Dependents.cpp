#include "scheduler/ledger/internal/Dependents.h"

namespace parallel::scheduler::ledger {

void Dependents::add(TaskSpan tasks, TaskKey array) {
  if (tasks.count() == 1)
    ofOneTask_.emplace(tasks.first, array);
  else
    ofSpans_.emplace_back(tasks, array);
}

void Dependents::dropJob(JobId job) {
  std::erase_if(ofOneTask_, [job](const auto& entry) { return entry.second.job == job; });
  std::erase_if(ofSpans_, [job](const auto& entry) { return entry.second.job == job; });
  std::erase_if(wholeJob_, [job](const TaskKey& array) { return array.job == job; });
}

std::set<TaskKey> Dependents::of(TaskSpan tasks) const {
  std::set<TaskKey> arrays;
  for (auto entry = ofOneTask_.lower_bound(tasks.first); entry != ofOneTask_.upper_bound(tasks.last); ++entry)
    arrays.insert(entry->second);
  for (const auto& [span, array] : ofSpans_) {
    if (span.overlaps(tasks))
      arrays.insert(array);
  }
  return arrays;
}

}  // namespace parallel::scheduler::ledger
