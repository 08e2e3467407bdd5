// Jobs and tasks that come in.
#include <limits>
#include <utility>

#include "scheduler/ledger/Ledger.h"
#include "scheduler/ledger/internal/Step.h"

namespace parallel::scheduler::ledger {
namespace {

// So many that sums of two never overflow.
constexpr TaskNumber kMostTasks = std::numeric_limits<TaskNumber>::max() / 4;

// The rows of arrays that begin with task `first`. `job` is what they call themselves.
class ArrayRows {
 public:
  ArrayRows(const State& state, JobId job, TaskNumber first, const Digest& digest)
      : state_(state), job_(job), next_(first), digest_(digest) {}

  std::optional<Refusal> add(const ArraySpec& spec) {
    if (spec.count == 0 || spec.count > kMostTasks || next_ > kMostTasks)
      return Refusal::badArray;
    ArrayRecord row;
    row.job = job_;
    row.tasks = {next_, next_ + spec.count - 1};
    if (rows_.empty())
      row.digest = digest_;
    row.needs = spec.needs;
    row.atOnce = spec.atOnce;
    row.deathsAllowed = spec.deathsAllowed;
    row.retries = spec.retries;
    row.dependencies = spec.dependencies;
    row.details = spec.details;
    for (Dependency& dependency : row.dependencies) {
      if (dependency.job == JobId{})
        dependency.job = job_;
      if (!isThere(dependency, spec.count))
        return Refusal::badDependency;
    }
    next_ += spec.count;
    rows_.push_back(std::move(row));
    return std::nullopt;
  }

  std::vector<ArrayRecord> rows() && { return std::move(rows_); }

 private:
  bool isThere(const Dependency& dependency, std::uint64_t count) const {
    const Job* dependee = state_.findJob(dependency.job);
    if (dependency.kind == Dependency::Kind::wholeJob)
      return dependee && dependency.job != job_;
    const TaskNumber end = dependency.job == job_ ? next_ : dependee ? dependee->taskCount() : 0;
    const std::uint64_t needed = dependency.kind == Dependency::Kind::sameIndex ? count : 1;
    return needed <= end && dependency.task <= end - needed;
  }

  const State& state_;
  const JobId job_;
  TaskNumber next_;
  const Digest& digest_;
  std::vector<ArrayRecord> rows_;
};

std::uint64_t countOf(const std::vector<ArraySpec>& specs) {
  std::uint64_t count = 0;
  for (const ArraySpec& spec : specs)
    count += spec.count;
  return count;
}

std::variant<std::vector<ArrayRecord>, Refusal> rowsOf(const std::vector<ArraySpec>& specs, ArrayRows rows) {
  for (const ArraySpec& spec : specs) {
    if (const auto refusal = rows.add(spec))
      return *refusal;
  }
  return std::move(rows).rows();
}

}  // namespace

Decision<Submitted> Ledger::submitJob(const SubmitJob& event, Moment now) {
  if (const auto known = state_->keys.find(event.key); known != state_->keys.end()) {
    const KeyRecord& key = known->second;
    if (key.digest != event.digest)
      return {Refusal::keyConflict};
    if (!state_->findJob(key.job))
      return {Refusal::jobDeleted};
    return {Submitted{key.job, true}};
  }
  const JobId id = state_->counters.nextJob;
  auto rows = rowsOf(event.arrays, ArrayRows(*state_, id, 0, event.digest));
  if (const auto* refusal = std::get_if<Refusal>(&rows))
    return {*refusal};

  Step step(*state_, now);
  state_->counters.nextJob = JobId{static_cast<std::uint64_t>(id) + 1};
  const KeyRecord key{event.key, event.digest, id};
  state_->keys.emplace(event.key, key);
  step.changes().keys[event.key] = key;
  step.changes().jobs[id] = JobRecord{id, event.key, event.name, now.wall, event.details};
  JobProgress progress;
  progress.job = id;
  progress.priority = event.priority;
  progress.held = event.held;
  progress.open = event.open;
  Job& job = step.addJob(progress);
  for (ArrayRecord& row : std::get<std::vector<ArrayRecord>>(rows))
    step.addArray(job, std::move(row));
  return {Submitted{id, false}, std::move(step).finish()};
}

Decision<Extended> Ledger::extendJob(const ExtendJob& event, Moment now) {
  Job* job = state_->findJob(event.job);
  if (!job)
    return {Refusal::unknownJob};
  if (const auto known = job->arrays.find(event.firstTask); known != job->arrays.end()) {
    if (known->second.record.digest != event.digest)
      return {Refusal::extensionConflict};
    return {Extended{event.firstTask + countOf(event.arrays), true}};
  }
  if (event.firstTask != job->taskCount())
    return {Refusal::extensionConflict};
  if (!job->progress.open)
    return {Refusal::jobClosed};
  auto rows = rowsOf(event.arrays, ArrayRows(*state_, event.job, event.firstTask, event.digest));
  if (const auto* refusal = std::get_if<Refusal>(&rows))
    return {*refusal};

  Step step(*state_, now);
  for (ArrayRecord& row : std::get<std::vector<ArrayRecord>>(rows))
    step.addArray(*job, std::move(row));
  return {Extended{job->taskCount(), false}, std::move(step).finish()};
}

}  // namespace parallel::scheduler::ledger
