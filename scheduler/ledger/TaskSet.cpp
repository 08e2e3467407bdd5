#include "scheduler/ledger/TaskSet.h"

#include <algorithm>

namespace parallel::scheduler::ledger {

// What touches the new span is swallowed by it; only a span that goes on behind it keeps its last task.
void TaskSet::add(TaskSpan span, Observer* observer) {
  TaskSpan merged = span;
  auto place = spans_.lower_bound(span.first == 0 ? 0 : span.first - 1);
  while (place != spans_.end() && (span.last == ~TaskNumber{0} || place->second <= span.last + 1)) {
    const TaskSpan met{place->second, place->first};
    merged = {std::min(merged.first, met.first), std::max(merged.last, met.last)};
    count_ -= met.count();
    place = spans_.erase(place);
    if (observer)
      observer->erased(met.last);
  }
  spans_.emplace_hint(place, merged.last, merged.first);
  count_ += merged.count();
  if (observer)
    observer->put(merged);
}

void TaskSet::remove(TaskSpan span, Observer* observer) {
  auto place = spans_.lower_bound(span.first);
  while (place != spans_.end() && place->second <= span.last) {
    const TaskSpan met{place->second, place->first};
    count_ -= std::min(met.last, span.last) - std::max(met.first, span.first) + 1;
    if (met.first < span.first) {
      spans_.emplace_hint(place, span.first - 1, met.first);
      if (observer)
        observer->put({met.first, span.first - 1});
    }
    if (met.last > span.last) {
      place->second = span.last + 1;
      if (observer)
        observer->put({span.last + 1, met.last});
      return;
    }
    place = spans_.erase(place);
    if (observer)
      observer->erased(met.last);
  }
}

void TaskSet::add(const TaskSet& other) {
  for (const auto& [last, first] : other.spans_)
    add(TaskSpan{first, last});
}

void TaskSet::remove(const TaskSet& other) {
  for (const auto& [last, first] : other.spans_)
    remove(TaskSpan{first, last});
}

bool TaskSet::contains(TaskNumber task) const {
  const auto place = spans_.lower_bound(task);
  return place != spans_.end() && place->second <= task;
}

std::vector<TaskSpan> TaskSet::spans() const {
  std::vector<TaskSpan> all;
  all.reserve(spans_.size());
  for (const auto& [last, first] : spans_)
    all.push_back({first, last});
  return all;
}

std::vector<TaskSpan> TaskSet::within(TaskSpan bounds) const {
  std::vector<TaskSpan> parts;
  for (auto place = spans_.lower_bound(bounds.first); place != spans_.end() && place->second <= bounds.last; ++place)
    parts.push_back({std::max(place->second, bounds.first), std::min(place->first, bounds.last)});
  return parts;
}

TaskSet TaskSet::intersection(const TaskSet& other) const {
  TaskSet both;
  for (const auto& [last, first] : other.spans_) {
    for (const TaskSpan part : within({first, last}))
      both.add(part);
  }
  return both;
}

}  // namespace parallel::scheduler::ledger
