#include "scheduler/ledger/Books.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace parallel::scheduler::ledger {
namespace {

template <class Map>
void eraseRowsOf(Map& rows, JobId job) {
  std::erase_if(rows, [job](const auto& row) { return row.second.job == job; });
}

void eraseJobRows(Books::Tables& tables, JobId job) {
  tables.jobs.erase(job);
  tables.progress.erase(job);
  eraseRowsOf(tables.rounds, job);
  eraseRowsOf(tables.arrays, job);
  eraseRowsOf(tables.ranges, job);
  eraseRowsOf(tables.tasks, job);
  std::erase_if(tables.attempts, [job](const auto& row) { return row.first.job == job; });
}

template <class Key, class Row>
void write(std::map<Key, Row>& table, const Upserts<Key, Row>& changes) {
  for (const auto& [key, row] : changes)
    table.insert_or_assign(key, row);
}

template <class Key, class Row>
void write(std::map<Key, Row>& table, const Edits<Key, Row>& changes) {
  for (const auto& [key, row] : changes) {
    if (row)
      table.insert_or_assign(key, *row);
    else
      table.erase(key);
  }
}

template <class Map, class Predicate>
auto rowsWhere(const Map& table, Predicate isWanted) {
  std::vector<typename Map::mapped_type> rows;
  for (const auto& [key, row] : table) {
    if (isWanted(row))
      rows.push_back(row);
  }
  return rows;
}

template <class Map>
auto allRows(const Map& table) {
  return rowsWhere(table, [](const auto&) { return true; });
}

}  // namespace

void Books::apply(const Changes& changes) {
  for (const JobId job : changes.deletedJobs)
    eraseJobRows(tables_, job);
  for (const auto& [job, span] : changes.droppedTasks)
    tables_.tasks.erase(tables_.tasks.lower_bound({job, span.first}), tables_.tasks.upper_bound({job, span.last}));
  if (changes.counters)
    tables_.counters = *changes.counters;
  write(tables_.keys, changes.keys);
  write(tables_.jobs, changes.jobs);
  write(tables_.progress, changes.progress);
  write(tables_.rounds, changes.rounds);
  write(tables_.arrays, changes.arrays);
  write(tables_.ranges, changes.ranges);
  write(tables_.tasks, changes.tasks);
  write(tables_.attempts, changes.attempts);
  write(tables_.workers, changes.workers);
}

Kept Books::kept() const {
  Kept kept;
  kept.counters = tables_.counters;
  kept.keys = allRows(tables_.keys);
  kept.progress = allRows(tables_.progress);
  kept.rounds = allRows(tables_.rounds);
  kept.arrays = allRows(tables_.arrays);
  kept.ranges = allRows(tables_.ranges);
  kept.tasks = rowsWhere(tables_.tasks, [](const TaskRecord& task) { return !hasEnded(task.state); });
  kept.attempts =
      rowsWhere(tables_.attempts, [](const AttemptRecord& attempt) { return attempt.state != AttemptState::ended; });
  kept.workers =
      rowsWhere(tables_.workers, [](const WorkerRecord& worker) { return worker.state != WorkerState::gone; });
  return kept;
}

std::optional<AttemptRecord> Books::attempt(const AttemptKey& key) const {
  const auto place = tables_.attempts.find(key);
  return place == tables_.attempts.end() ? std::nullopt : std::optional(place->second);
}

TaskSet Books::endedTasks(JobId job, TaskSpan bounds, TaskState state) const {
  TaskSet found;
  for (auto row = tables_.tasks.lower_bound({job, bounds.first});
       row != tables_.tasks.end() && row->first <= TaskKey{job, bounds.last}; ++row) {
    if (row->second.state == state)
      found.add(TaskSpan{row->first.task, row->first.task});
  }
  return found;
}

}  // namespace parallel::scheduler::ledger
