#include "scheduler/store/testing/RandomChanges.h"

#include <limits>

namespace parallel::scheduler::store::testing {

using namespace ledger;  // NOLINT(google-build-using-namespace): every record is one of its types

namespace {

constexpr std::uint64_t kTasks = 6;  // few, so that rows are written again

WallTime timeOf(std::uint64_t number) {
  return WallTime(std::chrono::milliseconds(number >> 20));
}

}  // namespace

// Small ones most of the time, and the borders.
std::uint64_t RandomChanges::anyNumber() {
  switch (below(4)) {
    case 0:
      return std::numeric_limits<std::uint64_t>::max() - below(2);
    case 1:
      return random_();
    default:
      return below(3);
  }
}

std::string RandomChanges::anyText() {
  std::string text(below(8), '\0');
  for (char& c : text)
    c = static_cast<char>(random_());
  return text;
}

JobId RandomChanges::anyJob() {
  return JobId(firstJob_ + below(nextJob_ - firstJob_));
}

Resources RandomChanges::anyResources() {
  Resources resources{static_cast<std::uint32_t>(anyNumber()), anyNumber(), {}};
  for (std::uint64_t left = below(3); left > 0; --left)
    resources.named[anyText()] = anyNumber();
  return resources;
}

RetryRules RandomChanges::anyRules() {
  RetryRules rules;
  for (RetryRule* rule :
       {&rules.exitCode, &rules.signal, &rules.outOfMemory, &rules.timeLimit, &rules.notStarted, &rules.workerLost})
    *rule = {static_cast<std::uint32_t>(anyNumber()), Duration(static_cast<std::int64_t>(random_())),
             Duration(static_cast<std::int64_t>(below(5)))};
  for (std::uint64_t left = below(3); left > 0; --left)
    rules.exitCodes.push_back(static_cast<std::int32_t>(random_()));
  return rules;
}

Ending RandomChanges::anyEnding() {
  return {static_cast<EndReason>(below(kEndReasonCount)), static_cast<std::int32_t>(random_())};
}

Changes RandomChanges::next() {
  Changes changes;
  if (nextJob_ - firstJob_ < 2 || below(4) == 0)
    addJob(changes);
  else if (nextJob_ - firstJob_ > 3 && below(4) == 0)
    changes.deletedJobs.push_back(JobId(firstJob_++));
  else if (below(4) == 0)
    changes.droppedTasks.push_back({anyJob(), {below(kTasks), kTasks + below(2)}});
  for (std::uint64_t left = below(4); left > 0; --left)
    addRows(changes, anyJob());
  if (below(2) == 0) {
    const WorkerId worker{1 + below(4)};
    changes.workers[worker] = {worker,        anyText(),  anyText(), anyResources(), static_cast<WorkerState>(below(3)),
                               below(2) == 0, anyNumber()};
  }
  return changes;
}

void RandomChanges::addJob(Changes& changes) {
  const JobId job{nextJob_++};
  const std::string key = "key " + std::to_string(nextJob_);
  changes.counters = Counters{JobId(nextJob_), WorkerId(anyNumber()), anyNumber()};
  changes.keys[key] = {key, anyText(), job};
  changes.jobs[job] = {job, key, anyText(), timeOf(random_()), anyText()};
  changes.progress[job] = {.job = job, .version = 1};
  changes.arrays[{job, 0}] = {.job = job,
                              .tasks = {0, kTasks - 1},
                              .digest = anyText(),
                              .needs = anyResources(),
                              .atOnce = anyNumber(),
                              .deathsAllowed = static_cast<std::uint32_t>(anyNumber()),
                              .retries = anyRules(),
                              .dependencies = {{Dependency::Kind::oneTask, job, anyNumber()}},
                              .details = anyText()};
  changes.ranges[{job, kTasks - 1}] = RangeRecord{job, {0, kTasks - 1}, TaskState::ready};
}

void RandomChanges::addRows(Changes& changes, JobId job) {
  const TaskNumber task = below(kTasks);
  const auto round = static_cast<std::uint32_t>(below(3));
  const auto ended = [&] { return below(2) == 0 ? std::nullopt : std::optional(timeOf(random_())); };
  switch (below(6)) {
    case 0:
      changes.ranges[{job, task}] =
          below(2) == 0 ? std::nullopt : std::optional(RangeRecord{job, {below(task + 1), task}, TaskState::waiting});
      break;
    case 1:
      changes.tasks[{job, task}] = std::nullopt;
      break;
    case 2:
      changes.tasks[{job, task}] = TaskRecord{.job = job,
                                              .task = task,
                                              .state = static_cast<TaskState>(below(kTaskStateCount)),
                                              .round = round,
                                              .attempt = anyNumber(),
                                              .retries = {0, static_cast<std::uint32_t>(anyNumber())},
                                              .deaths = static_cast<std::uint32_t>(anyNumber()),
                                              .alone = below(2) == 0,
                                              .delay = Duration(static_cast<std::int64_t>(random_())),
                                              .ending = anyEnding()};
      break;
    case 3: {
      const AttemptKey key{job, task, 1 + below(3)};
      changes.attempts[key] = AttemptRecord{.key = key,
                                            .worker = WorkerId(anyNumber()),
                                            .sequence = anyNumber(),
                                            .round = round,
                                            .state = static_cast<AttemptState>(below(4)),
                                            .alone = below(2) == 0,
                                            .accepted = below(2) == 0,
                                            .ending = anyEnding(),
                                            .granted = timeOf(random_()),
                                            .ended = ended(),
                                            .details = anyText()};
      break;
    }
    case 4:
      changes.rounds[{job, round}] = {job, round, anyText(), timeOf(random_())};
      break;
    default:
      changes.progress[job] = {.job = job,
                               .version = anyNumber(),
                               .priority = static_cast<std::int32_t>(random_()),
                               .held = below(2) == 0,
                               .open = below(2) == 0,
                               .round = round,
                               .counts = {anyNumber(), 1, 2, 3, anyNumber(), 5, 6, 7},
                               .ended = ended()};
  }
}

}  // namespace parallel::scheduler::store::testing
