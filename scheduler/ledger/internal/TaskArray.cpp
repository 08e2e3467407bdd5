#include "scheduler/ledger/internal/TaskArray.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace parallel::scheduler::ledger {
namespace {

std::size_t placeOf(TaskState state) {
  switch (state) {
    case TaskState::waiting:
      return 0;
    case TaskState::ready:
      return 1;
    case TaskState::cancelled:
      return 2;
    case TaskState::skipped:
      return 3;
    default:
      throw std::logic_error("A task that has started is in no range");
  }
}

}  // namespace

TaskArray::TaskArray(ArrayRecord fixed) : record(std::move(fixed)) {
  record.details.clear();
}

// What needs no core has its share of turns nevertheless.
std::uint64_t TaskArray::coresEach() const {
  return std::max<std::uint64_t>(1, record.needs.cores);
}

TaskSet& TaskArray::unstarted(TaskState state) {
  return unstarted_.at(placeOf(state));
}

const TaskSet& TaskArray::unstarted(TaskState state) const {
  return unstarted_.at(placeOf(state));
}

bool TaskArray::isUnended(TaskNumber task) const {
  return started.contains(task) || unstarted(TaskState::ready).contains(task) ||
         unstarted(TaskState::waiting).contains(task);
}

TaskSet TaskArray::unendedWithin(TaskSpan bounds) const {
  TaskSet unended;
  for (const TaskState state : {TaskState::waiting, TaskState::ready}) {
    for (const TaskSpan part : unstarted(state).within(bounds))
      unended.add(part);
  }
  for (auto task = started.lower_bound(bounds.first); task != started.end() && task->first <= bounds.last; ++task)
    unended.add(TaskSpan{task->first, task->first});
  return unended;
}

TaskSpan TaskArray::dependees(const Dependency& dependency, TaskSpan tasks) const {
  if (dependency.kind == Dependency::Kind::oneTask)
    return {dependency.task, dependency.task};
  return {dependency.task + (tasks.first - first()), dependency.task + (tasks.last - first())};
}

std::optional<TaskSpan> TaskArray::dependents(const Dependency& dependency, TaskSpan span) const {
  const TaskSpan all = dependees(dependency, record.tasks);
  if (!all.overlaps(span))
    return std::nullopt;
  if (dependency.kind == Dependency::Kind::oneTask)
    return record.tasks;
  return TaskSpan{first() + (std::max(span.first, all.first) - all.first),
                  first() + (std::min(span.last, all.last) - all.first)};
}

bool TaskArray::offers(bool alone) const {
  if (record.atOnce != 0 && active >= record.atOnce)
    return false;
  return alone ? !suspects.empty() : !again.empty() || !unstarted(TaskState::ready).empty();
}

}  // namespace parallel::scheduler::ledger
