// Tasks that wait for a time before they are tried again.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "scheduler/ledger/Changes.h"

namespace parallel::scheduler::ledger {

// The longest delays end at the end of time.
Duration endOfDelay(Moment now, Duration delay);

class Delays {
 public:
  void add(TaskKey task, Duration until);
  void drop(TaskKey task);
  bool contains(TaskKey task) const { return ends_.contains(task); }
  std::optional<Duration> nextEnd() const;
  // Those whose time has come; they are dropped.
  std::vector<TaskKey> takeEnded(Duration now);

 private:
  std::set<std::pair<Duration, TaskKey>> byEnd_;
  std::map<TaskKey, Duration> ends_;
};

}  // namespace parallel::scheduler::ledger
