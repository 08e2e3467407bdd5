#include "scheduler/methods/ledgerForms.h"

#include <algorithm>
#include <limits>

#include "scheduler/calls/durations.h"

namespace parallel::scheduler::methods {

using zksmessages::RetryRules;

namespace {

// The messages number them from 1 on, in the same order.
constexpr int kFirstTaskState = zksmessages::TASK_STATE_WAITING;
static_assert(zksmessages::TASK_STATE_SKIPPED - kFirstTaskState == static_cast<int>(ledger::TaskState::skipped));
static_assert(zksmessages::Ending::REASON_HANDED_BACK == static_cast<int>(ledger::EndReason::handedBack));
static_assert(zksmessages::Dependency::KIND_SAME_INDEX == static_cast<int>(ledger::Dependency::Kind::sameIndex));

ledger::RetryRule ruleOf(const zksmessages::RetryRule& message) {
  return {message.limit(), scheduler::fromMessage(message.first_delay()),
          scheduler::fromMessage(message.longest_delay())};
}

ledger::RetryRules rulesOf(const RetryRules& message) {
  ledger::RetryRules rules;
  rules.exitCode = ruleOf(message.exit_code());
  rules.exitCodes.assign(message.exit_codes().begin(), message.exit_codes().end());
  rules.signal = ruleOf(message.signal());
  rules.outOfMemory = ruleOf(message.out_of_memory());
  rules.timeLimit = ruleOf(message.time_limit());
  rules.notStarted = ruleOf(message.not_started());
  if (message.has_worker_lost())
    rules.workerLost = ruleOf(message.worker_lost());
  return rules;
}

ledger::Dependency dependencyOf(const zksmessages::Dependency& message) {
  return {static_cast<ledger::Dependency::Kind>(message.kind()), ledger::JobId{message.job()}, message.task()};
}

}  // namespace

ledger::Resources fromMessage(const zksmessages::Resources& message) {
  return {message.cores(), message.memory_bytes(), {message.named().begin(), message.named().end()}};
}

zksmessages::Resources toMessage(const ledger::Resources& resources) {
  zksmessages::Resources message;
  message.set_cores(resources.cores);
  message.set_memory_bytes(resources.memoryBytes);
  for (const auto& [name, count] : resources.named)
    (*message.mutable_named())[name] = count;
  return message;
}

ledger::AttemptKey fromMessage(const zksmessages::AttemptKey& message) {
  return {ledger::JobId{message.job()}, message.task(), message.number()};
}

zksmessages::AttemptKey toMessage(const ledger::AttemptKey& key) {
  zksmessages::AttemptKey message;
  message.set_job(static_cast<std::uint64_t>(key.job));
  message.set_task(key.task);
  message.set_number(key.number);
  return message;
}

ledger::Ending fromMessage(const zksmessages::Ending& message) {
  return {static_cast<ledger::EndReason>(message.reason()), message.code()};
}

zksmessages::Ending toMessage(ledger::Ending ending) {
  zksmessages::Ending message;
  message.set_reason(static_cast<zksmessages::Ending::Reason>(ending.reason));
  message.set_code(ending.code);
  return message;
}

zksmessages::TaskState toMessage(ledger::TaskState state) {
  return static_cast<zksmessages::TaskState>(static_cast<int>(state) + kFirstTaskState);
}

zksmessages::TaskCounts toMessage(const ledger::TaskCounts& counts) {
  const auto of = [&counts](ledger::TaskState state) { return counts.at(static_cast<std::size_t>(state)); };
  zksmessages::TaskCounts message;
  message.set_waiting(of(ledger::TaskState::waiting));
  message.set_ready(of(ledger::TaskState::ready));
  message.set_granted(of(ledger::TaskState::granted));
  message.set_running(of(ledger::TaskState::running));
  message.set_succeeded(of(ledger::TaskState::succeeded));
  message.set_failed(of(ledger::TaskState::failed));
  message.set_cancelled(of(ledger::TaskState::cancelled));
  message.set_skipped(of(ledger::TaskState::skipped));
  return message;
}

zksmessages::JobSummary summaryOf(const ledger::JobRecord& job, const ledger::JobProgress& progress) {
  zksmessages::JobSummary summary;
  summary.set_job(static_cast<std::uint64_t>(job.id));
  summary.set_name(job.name);
  summary.set_key(job.key);
  summary.set_submitted(job.submitted.time_since_epoch().count());
  if (progress.ended)
    summary.set_ended(progress.ended->time_since_epoch().count());
  summary.set_version(progress.version);
  summary.set_priority(progress.priority);
  summary.set_held(progress.held);
  summary.set_open(progress.open);
  summary.set_round(progress.round);
  *summary.mutable_counts() = toMessage(progress.counts);
  return summary;
}

ledger::ArraySpec specOf(const zksmessages::TaskArray& array) {
  ledger::ArraySpec spec;
  spec.count = array.count();
  if (array.has_needs())
    spec.needs = fromMessage(array.needs());
  spec.atOnce = array.at_once();
  if (array.has_deaths_allowed())
    spec.deathsAllowed = array.deaths_allowed();
  spec.retries = rulesOf(array.retries());
  std::transform(array.dependencies().begin(), array.dependencies().end(), std::back_inserter(spec.dependencies),
                 dependencyOf);
  return spec;
}

}  // namespace parallel::scheduler::methods
