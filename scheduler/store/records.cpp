#include "scheduler/store/records.h"

#include <algorithm>
#include <utility>

#include "scheduler/store/Numbers.h"

namespace parallel::scheduler::store {

using namespace ledger;  // NOLINT(google-build-using-namespace): every record is one of its types

namespace {

// --- Columns of several numbers ---

std::string packed(const Resources& resources) {
  NumbersWriter out;
  out.add(resources.cores).add(resources.memoryBytes).add(resources.named.size());
  for (const auto& [name, count] : resources.named)
    out.addText(name).add(count);
  return out.bytes();
}

Resources unpackedResources(const std::string& bytes) {
  NumbersReader in(bytes);
  Resources resources;
  resources.cores = in.as<std::uint32_t>();
  resources.memoryBytes = in.number();
  for (std::uint64_t left = in.number(); left > 0; --left) {
    std::string name = in.text();
    resources.named[std::move(name)] = in.number();
  }
  in.expectEnd();
  return resources;
}

std::string packed(const TaskCounts& counts) {
  NumbersWriter out;
  for (const std::uint64_t count : counts)
    out.add(count);
  return out.bytes();
}

TaskCounts unpackedCounts(const std::string& bytes) {
  NumbersReader in(bytes);
  TaskCounts counts{};
  for (std::uint64_t& count : counts)
    count = in.number();
  in.expectEnd();
  return counts;
}

std::string packed(const RetryCounts& counts) {
  NumbersWriter out;
  for (const std::uint32_t count : counts)
    out.add(count);
  return out.bytes();
}

RetryCounts unpackedRetryCounts(const std::string& bytes) {
  NumbersReader in(bytes);
  RetryCounts counts{};
  for (std::uint32_t& count : counts)
    count = in.as<std::uint32_t>();
  in.expectEnd();
  return counts;
}

template <class Rules>
auto rulesInOrder(Rules& rules) {
  return std::array{&rules.exitCode,  &rules.signal,     &rules.outOfMemory,
                    &rules.timeLimit, &rules.notStarted, &rules.workerLost};
}

std::string packed(const RetryRules& rules) {
  NumbersWriter out;
  for (const RetryRule* rule : rulesInOrder(rules))
    out.add(rule->limit).addSigned(rule->firstDelay.count()).addSigned(rule->longestDelay.count());
  out.add(rules.exitCodes.size());
  for (const std::int32_t code : rules.exitCodes)
    out.addSigned(code);
  return out.bytes();
}

RetryRules unpackedRules(const std::string& bytes) {
  NumbersReader in(bytes);
  RetryRules rules;
  for (RetryRule* rule : rulesInOrder(rules)) {
    rule->limit = in.as<std::uint32_t>();
    rule->firstDelay = Duration(in.signedNumber());
    rule->longestDelay = Duration(in.signedNumber());
  }
  for (std::uint64_t left = in.number(); left > 0; --left)
    rules.exitCodes.push_back(static_cast<std::int32_t>(in.signedNumber()));
  in.expectEnd();
  return rules;
}

std::string packed(const std::vector<Dependency>& dependencies) {
  NumbersWriter out;
  out.add(dependencies.size());
  for (const Dependency& dependency : dependencies)
    out.add(static_cast<std::uint64_t>(dependency.kind))
        .add(static_cast<std::uint64_t>(dependency.job))
        .add(dependency.task);
  return out.bytes();
}

std::vector<Dependency> unpackedDependencies(const std::string& bytes) {
  NumbersReader in(bytes);
  std::vector<Dependency> dependencies;
  for (std::uint64_t left = in.number(); left > 0; --left) {
    const auto kind = in.as<Dependency::Kind>();
    const auto job = in.as<JobId>();
    dependencies.push_back({kind, job, in.number()});
  }
  in.expectEnd();
  return dependencies;
}

// --- Columns that may be null ---

std::int64_t milliseconds(WallTime time) {
  return time.time_since_epoch().count();
}

WallTime wallTime(Statement& row) {
  return WallTime(std::chrono::milliseconds(row.signedNumber()));
}

void bindOptional(Statement& statement, const std::optional<WallTime>& time) {
  if (time)
    statement.bind(milliseconds(*time));
  else
    statement.bindNull();
}

std::optional<WallTime> optionalTime(Statement& row) {
  return row.skipNull() ? std::nullopt : std::optional(wallTime(row));
}

void bindEnding(Statement& statement, const Ending& ending) {
  statement.bind(ending.reason).bind(ending.code);
}

Ending readEnding(Statement& row) {
  const auto reason = row.as<EndReason>();
  return {reason, row.as<std::int32_t>()};
}

}  // namespace

Statement& BoundRow::pack(std::string bytes) {
  std::string& kept = packed_.at(packedCount_++);
  kept = std::move(bytes);
  return statement_.bindBytes(kept);
}

void BoundRow::add(const Counters& counters) {
  statement_.bind(counters.nextJob).bind(counters.nextWorker).bind(counters.nextAttempt);
}

void read(Statement& row, Counters& counters) {
  counters.nextJob = row.as<JobId>();
  counters.nextWorker = row.as<WorkerId>();
  counters.nextAttempt = row.number();
}

void BoundRow::add(const KeyRecord& key) {
  statement_.bind(key.key).bindBytes(key.digest).bind(key.job);
}

void read(Statement& row, KeyRecord& key) {
  key.key = row.text();
  key.digest = row.bytes();
  key.job = row.as<JobId>();
}

void BoundRow::add(const JobRecord& job) {
  statement_.bind(job.id).bind(job.key).bind(job.name).bind(milliseconds(job.submitted)).bindBytes(job.details);
}

void read(Statement& row, JobRecord& job) {
  job.id = row.as<JobId>();
  job.key = row.text();
  job.name = row.text();
  job.submitted = wallTime(row);
  job.details = row.bytes();
}

void BoundRow::add(const JobProgress& progress) {
  statement_.bind(progress.job).bind(progress.version).bind(progress.priority);
  statement_.bind(progress.held).bind(progress.open).bind(progress.round);
  pack(packed(progress.counts));
  bindOptional(statement_, progress.ended);
}

void read(Statement& row, JobProgress& progress) {
  progress.job = row.as<JobId>();
  progress.version = row.number();
  progress.priority = row.as<std::int32_t>();
  progress.held = row.as<bool>();
  progress.open = row.as<bool>();
  progress.round = row.as<std::uint32_t>();
  progress.counts = unpackedCounts(row.bytes());
  progress.ended = optionalTime(row);
}

void BoundRow::add(const RoundRecord& round) {
  statement_.bind(round.job).bind(round.round).bind(round.key).bind(milliseconds(round.begun));
}

void read(Statement& row, RoundRecord& round) {
  round.job = row.as<JobId>();
  round.round = row.as<std::uint32_t>();
  round.key = row.text();
  round.begun = wallTime(row);
}

void BoundRow::add(const ArrayRecord& array) {
  statement_.bind(array.job).bind(array.tasks.first).bind(array.tasks.last).bindBytes(array.digest);
  pack(packed(array.needs)).bind(array.atOnce).bind(array.deathsAllowed);
  pack(packed(array.retries));
  pack(packed(array.dependencies)).bindBytes(array.details);
}

void read(Statement& row, ArrayRecord& array) {
  array.job = row.as<JobId>();
  array.tasks.first = row.number();
  array.tasks.last = row.number();
  array.digest = row.bytes();
  array.needs = unpackedResources(row.bytes());
  array.atOnce = row.number();
  array.deathsAllowed = row.as<std::uint32_t>();
  array.retries = unpackedRules(row.bytes());
  array.dependencies = unpackedDependencies(row.bytes());
  array.details = row.bytes();
}

void BoundRow::add(const RangeRecord& range) {
  statement_.bind(range.job).bind(range.tasks.last).bind(range.tasks.first).bind(range.state);
}

void read(Statement& row, RangeRecord& range) {
  range.job = row.as<JobId>();
  range.tasks.last = row.number();
  range.tasks.first = row.number();
  range.state = row.as<TaskState>();
}

void BoundRow::add(const TaskRecord& task) {
  statement_.bind(task.job).bind(task.task).bind(task.state).bind(task.round).bind(task.attempt);
  if (task.retries == RetryCounts{})
    statement_.bindNull();
  else
    pack(packed(task.retries));
  statement_.bind(task.deaths).bind(task.alone).bind(task.delay.count());
  bindEnding(statement_, task.ending);
}

void read(Statement& row, TaskRecord& task) {
  task.job = row.as<JobId>();
  task.task = row.number();
  task.state = row.as<TaskState>();
  task.round = row.as<std::uint32_t>();
  task.attempt = row.number();
  task.retries = row.skipNull() ? RetryCounts{} : unpackedRetryCounts(row.bytes());
  task.deaths = row.as<std::uint32_t>();
  task.alone = row.as<bool>();
  task.delay = Duration(row.signedNumber());
  task.ending = readEnding(row);
}

void BoundRow::add(const AttemptRecord& attempt) {
  statement_.bind(attempt.key.job).bind(attempt.key.task).bind(attempt.key.number).bind(attempt.worker);
  statement_.bind(attempt.sequence).bind(attempt.round).bind(attempt.state).bind(attempt.alone).bind(attempt.accepted);
  bindEnding(statement_, attempt.ending);
  statement_.bind(milliseconds(attempt.granted));
  bindOptional(statement_, attempt.ended);
  statement_.bindBytes(attempt.details);
}

void read(Statement& row, AttemptRecord& attempt) {
  attempt.key.job = row.as<JobId>();
  attempt.key.task = row.number();
  attempt.key.number = row.number();
  attempt.worker = row.as<WorkerId>();
  attempt.sequence = row.number();
  attempt.round = row.as<std::uint32_t>();
  attempt.state = row.as<AttemptState>();
  attempt.alone = row.as<bool>();
  attempt.accepted = row.as<bool>();
  attempt.ending = readEnding(row);
  attempt.granted = wallTime(row);
  attempt.ended = optionalTime(row);
  attempt.details = row.bytes();
}

void BoundRow::add(const WorkerRecord& worker) {
  statement_.bind(worker.id).bind(worker.key).bind(worker.name);
  pack(packed(worker.resources)).bind(worker.state).bind(worker.draining).bind(worker.sequence);
}

void read(Statement& row, WorkerRecord& worker) {
  worker.id = row.as<WorkerId>();
  worker.key = row.text();
  worker.name = row.text();
  worker.resources = unpackedResources(row.bytes());
  worker.state = row.as<WorkerState>();
  worker.draining = row.as<bool>();
  worker.sequence = row.number();
}

}  // namespace parallel::scheduler::store
