// Changes with something in every column: what the kept stores of older formats hold (store-format-1.sql).
#pragma once

#include <chrono>

#include "scheduler/ledger/Changes.h"

namespace parallel::scheduler::store::testing {

inline ledger::Changes knownChanges() {
  using namespace ledger;  // NOLINT(google-build-using-namespace): every record is one of its types
  using namespace std::chrono_literals;
  const auto at = [](int second) { return WallTime(std::chrono::seconds(1'700'000'000 + second)); };
  const JobId one{1};
  const JobId two{2};
  const WorkerId worker{1};
  Changes changes;
  changes.counters = Counters{JobId{4}, WorkerId{2}, 6};
  changes.keys["key of one"] = {"key of one", "digest of one", one};
  changes.keys["key of two"] = {"key of two", "digest of two", two};
  changes.keys["key of three"] = {"key of three", "digest of three", JobId{3}};  // a job that is deleted
  changes.jobs[one] = {one, "key of one", "sweep", at(0), "details of one"};
  changes.jobs[two] = {two, "key of two", "", at(1), ""};
  changes.progress[one] = {.job = one,
                           .version = 12,
                           .priority = -3,
                           .held = true,
                           .open = true,
                           .round = 2,
                           .counts = {1, 993, 1, 1, 2, 1, 1, 0},
                           .ended = {}};
  changes.progress[two] = {.job = two, .version = 3, .counts = {0, 0, 0, 0, 1, 0, 0, 0}, .ended = at(9)};
  changes.rounds[{one, 2}] = {one, 2, "key of the retry", at(5)};
  RetryRules rules;
  rules.exitCode = {2, 1s, 1min};
  rules.exitCodes = {75, -1};
  rules.workerLost.limit = 0;
  changes.arrays[{one, 0}] = {
      .job = one,
      .tasks = {0, 999},
      .digest = "digest of the array",
      .needs = {4, std::uint64_t{1} << 33, {{"gpu", 2}, {"licence", 1}}},
      .atOnce = 10,
      .deathsAllowed = 1,
      .retries = rules,
      .dependencies = {{Dependency::Kind::sameIndex, two, 7}, {Dependency::Kind::wholeJob, two, 0}},
      .details = "details of the array"};
  changes.arrays[{two, 0}] = {.job = two, .tasks = {0, 0}, .digest = "digest"};
  changes.ranges[{one, 5}] = RangeRecord{one, {5, 5}, TaskState::waiting};
  changes.ranges[{one, 999}] = RangeRecord{one, {7, 999}, TaskState::ready};
  changes.tasks[{one, 0}] = TaskRecord{.job = one,
                                       .task = 0,
                                       .state = TaskState::running,
                                       .round = 2,
                                       .attempt = 4,
                                       .retries = {0, 0, 1, 300},
                                       .deaths = 1,
                                       .alone = true,
                                       .delay = 1500ms,
                                       .ending = {EndReason::signal, 9}};
  changes.tasks[{one, 1}] = TaskRecord{.job = one, .task = 1, .state = TaskState::granted, .attempt = 5};
  changes.tasks[{one, 2}] =
      TaskRecord{.job = one, .task = 2, .state = TaskState::failed, .attempt = 2, .ending = {EndReason::exitCode, -1}};
  changes.tasks[{two, 0}] = TaskRecord{.job = two, .task = 0, .state = TaskState::succeeded, .attempt = 1};
  changes.attempts[{one, 0, 4}] = AttemptRecord{.key = {one, 0, 4},
                                                .worker = worker,
                                                .sequence = 7,
                                                .round = 2,
                                                .state = AttemptState::started,
                                                .alone = true,
                                                .accepted = false,
                                                .ending = {},
                                                .granted = at(6),
                                                .ended = {},
                                                .details = ""};
  changes.attempts[{two, 0, 1}] = AttemptRecord{.key = {two, 0, 1},
                                                .worker = worker,
                                                .sequence = 1,
                                                .round = 1,
                                                .state = AttemptState::ended,
                                                .alone = false,
                                                .accepted = true,
                                                .ending = {EndReason::success, 0},
                                                .granted = at(2),
                                                .ended = at(8),
                                                .details = "what it came to"};
  changes.workers[worker] = {worker, "key of the worker", "node7", {2, 1024, {{"gpu", 1}}}, WorkerState::active, true,
                             8};
  return changes;
}

}  // namespace parallel::scheduler::store::testing
