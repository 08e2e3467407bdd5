#include "scheduler/ledger/internal/Delays.h"

namespace parallel::scheduler::ledger {

Duration endOfDelay(Moment now, Duration delay) {
  return delay < Duration::max() - now.running ? now.running + delay : Duration::max();
}

void Delays::add(TaskKey task, Duration until) {
  drop(task);
  byEnd_.emplace(until, task);
  ends_.emplace(task, until);
}

void Delays::drop(TaskKey task) {
  const auto place = ends_.find(task);
  if (place == ends_.end())
    return;
  byEnd_.erase({place->second, task});
  ends_.erase(place);
}

std::optional<Duration> Delays::nextEnd() const {
  return byEnd_.empty() ? std::nullopt : std::optional(byEnd_.begin()->first);
}

std::vector<TaskKey> Delays::takeEnded(Duration now) {
  std::vector<TaskKey> ended;
  while (!byEnd_.empty() && byEnd_.begin()->first <= now) {
    ended.push_back(byEnd_.begin()->second);
    drop(ended.back());
  }
  return ended;
}

}  // namespace parallel::scheduler::ledger
