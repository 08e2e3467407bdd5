#include "scheduler/ledger/internal/Job.h"

#include <numeric>

namespace parallel::scheduler::ledger {

TaskNumber Job::taskCount() const {
  return arrays.empty() ? 0 : arrays.rbegin()->second.record.tasks.last + 1;
}

std::uint64_t Job::unendedCount() const {
  return std::accumulate(progress.counts.begin(),
                         progress.counts.begin() + static_cast<std::ptrdiff_t>(TaskState::succeeded), std::uint64_t{0});
}

bool Job::hasOnlySuccesses() const {
  return count(TaskState::succeeded) == taskCount();
}

std::optional<std::uint32_t> Job::findRound(const std::string& key) const {
  for (const auto& [round, row] : rounds) {
    if (row.key == key && !key.empty())
      return round;
  }
  return std::nullopt;
}

std::vector<TaskArray*> Job::arraysWithin(TaskSpan span) {
  std::vector<TaskArray*> found;
  auto place = arrays.upper_bound(span.first);
  if (place != arrays.begin())
    --place;
  for (; place != arrays.end() && place->first <= span.last; ++place) {
    if (place->second.record.tasks.overlaps(span))
      found.push_back(&place->second);
  }
  return found;
}

TaskSet Job::unendedWithin(TaskSpan bounds) const {
  TaskSet unended;
  auto place = arrays.upper_bound(bounds.first);
  if (place != arrays.begin())
    --place;
  for (; place != arrays.end() && place->first <= bounds.last; ++place)
    unended.add(place->second.unendedWithin(bounds));
  return unended;
}

}  // namespace parallel::scheduler::ledger
