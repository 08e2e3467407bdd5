// What must hold of the books at all times.
#pragma once

#include <map>
#include <sstream>
#include <string>

#include "scheduler/ledger/Books.h"

namespace parallel::scheduler::ledger::testing {

// The state of each task. Says in `complaint` which task is in two rows, or in none.
inline std::map<TaskKey, TaskState> statesOf(const Books::Tables& books, std::string& complaint) {
  std::map<TaskKey, TaskState> states;
  const auto note = [&](TaskKey key, TaskState state) {
    if (!states.emplace(key, state).second)
      complaint = "a task is in two rows";
  };
  for (const auto& [key, range] : books.ranges) {
    for (TaskNumber task = range.tasks.first; task <= range.tasks.last; ++task)
      note({key.job, task}, range.state);
  }
  for (const auto& [key, task] : books.tasks)
    note(key, task.state);
  std::uint64_t count = 0;
  for (const auto& [key, array] : books.arrays)
    count += array.tasks.count();
  if (count != states.size())
    complaint = "a task is in no row";
  return states;
}

inline std::string complaintOfCounts(const Books::Tables& books, const std::map<TaskKey, TaskState>& states) {
  std::map<JobId, TaskCounts> counts;
  for (const auto& [key, state] : states)
    ++counts[key.job].at(static_cast<std::size_t>(state));
  for (const auto& [job, progress] : books.progress) {
    if (progress.counts != counts[job])
      return "the counts of a job are not those of its tasks";
    std::uint64_t unended = 0;
    for (const TaskState state : {TaskState::waiting, TaskState::ready, TaskState::granted, TaskState::running})
      unended += progress.counts.at(static_cast<std::size_t>(state));
    if (progress.ended.has_value() != (unended == 0 && !progress.open))
      return "a job has ended before its tasks, or they before it";
  }
  return {};
}

// A granted or running task has one live attempt, the one that it names; a ready one at most a lapsed one.
inline std::string complaintOfAttempts(const Books::Tables& books, const std::map<TaskKey, TaskState>& states) {
  std::map<TaskKey, int> live;
  std::map<WorkerId, int> liveAt;
  std::map<WorkerId, int> aloneAt;
  for (const auto& [key, attempt] : books.attempts) {
    if (attempt.state == AttemptState::ended)
      continue;
    const TaskKey taskKey{key.job, key.task};
    const auto task = books.tasks.find(taskKey);
    if (task == books.tasks.end() || task->second.attempt != key.number)
      return "a task does not name its attempt";
    const TaskState expected = attempt.state == AttemptState::granted   ? TaskState::granted
                               : attempt.state == AttemptState::started ? TaskState::running
                                                                        : TaskState::ready;
    if (task->second.state != expected)
      return "a task and its attempt are not in the same state";
    const auto worker = books.workers.find(attempt.worker);
    if (worker == books.workers.end() || worker->second.state == WorkerState::gone)
      return "the worker of an attempt is gone";
    if (attempt.state == AttemptState::lapsed)
      continue;
    ++live[taskKey];
    ++liveAt[attempt.worker];
    aloneAt[attempt.worker] += attempt.alone ? 1 : 0;
  }
  for (const auto& [key, state] : states) {
    const bool isActive = state == TaskState::granted || state == TaskState::running;
    if (live[key] != (isActive ? 1 : 0))
      return "a task has not as many live attempts as its state says";
  }
  for (const auto& [worker, count] : aloneAt) {
    if (count > 0 && liveAt[worker] > 1)
      return "a suspect does not run alone";
  }
  return {};
}

// Empty when all is well.
inline std::string complaintOf(const Books::Tables& books) {
  std::string complaint;
  const auto states = statesOf(books, complaint);
  if (complaint.empty())
    complaint = complaintOfCounts(books, states);
  if (complaint.empty())
    complaint = complaintOfAttempts(books, states);
  return complaint;
}

}  // namespace parallel::scheduler::ledger::testing
