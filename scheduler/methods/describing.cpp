// What is said of jobs, tasks, workers and the service.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <optional>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "scheduler/calls/durations.h"
#include "scheduler/methods/JobMethods.h"
#include "scheduler/methods/attemptResults.h"
#include "scheduler/methods/ledgerForms.h"
#include "scheduler/methods/requests.h"
#include "scheduler/methods/waitReasonText.h"

namespace parallel::scheduler::methods {

using ledger::JobId;
using ledger::TaskKey;
using ledger::TaskNumber;
using ledger::TaskState;
using store::LedgerTables;
using zksmessages::JobRequest;

namespace {

[[noreturn]] void throwUnknownJob(JobId job) {
  throwRefusal(ledger::Refusal::unknownJob, {.job = job});
}

std::optional<zksmessages::JobSummary> findSummary(LedgerTables& tables, JobId id) {
  const auto job = tables.job(id);
  const auto progress = tables.progress(id);
  return job && progress ? std::optional(summaryOf(*job, *progress)) : std::nullopt;
}

std::uint32_t limitOf(const ServerCall& call, std::uint32_t asked, std::uint32_t usual, std::uint32_t most) {
  if (asked > most)
    refuseField(call, "limit", std::to_string(asked) + " is more than " + std::to_string(most));
  return asked == 0 ? usual : asked;
}

// A task as the tables have it: with a row of its own once it has started.
struct Listed {
  TaskState state = TaskState::waiting;
  std::optional<ledger::TaskRecord> record;
};
using Listing = std::map<TaskNumber, Listed>;

class TaskList {
 public:
  TaskList(LedgerTables& tables, TaskKey first, std::vector<TaskState> states, std::size_t limit)
      : tables_(tables), first_(first), states_(std::move(states)), limit_(limit) {}

  // The first `limit` tasks of these states, in order.
  Listing list() {
    addStarted();
    addUnstarted();
    while (listing_.size() > limit_)
      listing_.erase(std::prev(listing_.end()));
    return std::move(listing_);
  }

 private:
  bool isWanted(TaskState state) const {
    return states_.empty() || std::find(states_.begin(), states_.end(), state) != states_.end();
  }

  void addStarted() {
    const auto add = [this](std::optional<TaskState> state) {
      for (const ledger::TaskRecord& record : tables_.tasksFrom(first_, state, limit_))
        listing_[record.task] = {record.state, record};
    };
    if (states_.empty())
      add({});
    for (const TaskState state : states_)
      add(state);
  }

  // Ranges may be long: no more of them than are listed.
  void addUnstarted() {
    constexpr std::size_t kRangesAtOnce = 256;
    TaskKey from = first_;
    for (std::size_t found = 0; found < limit_;) {
      const auto ranges = tables_.rangesFrom(from, kRangesAtOnce);
      for (const ledger::RangeRecord& range : ranges) {
        from.task = range.tasks.last + 1;
        if (!isWanted(range.state))
          continue;
        for (TaskNumber task = std::max(range.tasks.first, first_.task); task <= range.tasks.last && found < limit_;
             ++task, ++found)
          listing_[task] = {range.state, {}};
        if (found == limit_)
          break;
      }
      if (ranges.size() < kRangesAtOnce)
        return;
    }
  }

  LedgerTables& tables_;
  const TaskKey first_;
  const std::vector<TaskState> states_;
  const std::size_t limit_;
  Listing listing_;
};

std::vector<TaskState> statesOf(const ServerCall& call, const zksmessages::ListTasksRequest& request) {
  std::vector<TaskState> states;
  for (const int state : request.states()) {
    if (!zksmessages::TaskState_IsValid(state) || state == zksmessages::TASK_STATE_UNSPECIFIED)
      refuseField(call, "states", std::to_string(state) + " is not a state of a task");
    states.push_back(static_cast<TaskState>(state - zksmessages::TASK_STATE_WAITING));
  }
  return states;
}

// What its last attempt left.
void addAttempt(zksmessages::TaskSummary& summary, const std::optional<ledger::AttemptRecord>& attempt) {
  if (!attempt)
    return;
  summary.set_worker(static_cast<std::uint64_t>(attempt->worker));
  zksmessages::AttemptResult result = resultOf(*attempt);
  if (summary.state() == zksmessages::TASK_STATE_FAILED || summary.state() == zksmessages::TASK_STATE_READY)
    summary.set_error_end(errorEndOf(result));
  if (result.has_info())
    *summary.mutable_info() = std::move(*result.mutable_info());
}

}  // namespace

void JobMethods::waitForChange(ServerCall& call) {
  const auto request = readRequest<zksmessages::WaitForChangeRequest>(call, options_.descriptionLimit);
  const JobId job{request.job()};
  const std::chrono::nanoseconds wait = waitOf(request.wait());
  const std::shared_ptr<DeferredReply> deferred = call.defer();
  const auto answer = [this, job](ServerCall& later) {
    const auto summary = ask([job](LedgerTables& tables) { return findSummary(tables, job); });
    if (!summary)
      throwUnknownJob(job);
    zksmessages::WaitForChangeReply reply;
    *reply.mutable_summary() = *summary;
    sendReply(later, reply);
  };
  keeper_.run([&](BookKeeper::Turn& turn) {
    const auto progress = turn.ledger().progress(job);
    if (!progress || progress->version > request.version() || wait == std::chrono::nanoseconds(0))
      return resumeAfter(turn, deferred, answer);
    changes_.wait(job, request.version(), Alarms::Clock::now() + wait,
                  [deferred, answer] { deferred->resume(answer); });
  });
}

void JobMethods::describeJob(ServerCall& call) {
  constexpr std::size_t kArraysAtOnce = 64;
  const JobId job{readRequest<JobRequest>(call, options_.descriptionLimit).job()};
  zksmessages::DescribeJobReply reply;
  const bool isThere = ask([&](LedgerTables& tables) {
    const auto record = tables.job(job);
    const auto progress = tables.progress(job);
    if (!record || !progress)
      return false;
    *reply.mutable_summary() = summaryOf(*record, *progress);
    return reply.mutable_description()->ParseFromString(record->details);
  });
  if (!isThere)
    throwUnknownJob(job);
  for (TaskNumber next = 0;;) {
    const auto arrays = ask([&](LedgerTables& tables) { return tables.arraysFrom({job, next}, kArraysAtOnce); });
    for (const ledger::ArrayRecord& array : arrays) {
      reply.mutable_description()->add_arrays()->ParseFromString(array.details);
      next = array.tasks.last + 1;
    }
    if (arrays.size() < kArraysAtOnce)
      break;
  }
  sendReply(call, reply);
}

void JobMethods::listJobs(ServerCall& call) {
  const auto request = readRequest<zksmessages::ListJobsRequest>(call, options_.descriptionLimit);
  const std::size_t limit = limitOf(call, request.limit(), 100, 1000);
  const JobId before{request.before() == 0 ? std::numeric_limits<std::uint64_t>::max() : request.before()};
  zksmessages::ListJobsReply reply;
  ask([&](LedgerTables& tables) {
    const auto jobs = tables.jobsBefore(before, request.name(), limit + 1);
    for (std::size_t i = 0; i < std::min(jobs.size(), limit); ++i) {
      if (const auto progress = tables.progress(jobs[i].id))
        *reply.add_jobs() = summaryOf(jobs[i], *progress);
    }
    if (jobs.size() > limit)
      reply.set_next_before(static_cast<std::uint64_t>(jobs[limit - 1].id));
    return true;
  });
  sendReply(call, reply);
}

void JobMethods::listTasks(ServerCall& call) {
  const auto request = readRequest<zksmessages::ListTasksRequest>(call, options_.descriptionLimit);
  const JobId job{request.job()};
  const std::size_t limit = limitOf(call, request.limit(), 100, 10'000);
  const std::vector<TaskState> states = statesOf(call, request);
  const auto listing = ask([&](LedgerTables& tables) {
    return tables.progress(job) ? std::optional(TaskList(tables, {job, request.first_task()}, states, limit + 1).list())
                                : std::nullopt;
  });
  if (!listing)
    throwUnknownJob(job);

  zksmessages::ListTasksReply reply;
  std::vector<TaskNumber> unstarted;
  for (const auto& [task, listed] : *listing) {
    if (static_cast<std::size_t>(reply.tasks_size()) == limit) {
      reply.set_next_task(task);
      break;
    }
    auto* summary = reply.add_tasks();
    summary->set_task(task);
    summary->set_state(toMessage(listed.state));
    if (const auto array = arrays_.find({job, task}, wallTime()))
      summary->set_index(array->indexOf(task));
    if (listed.state == TaskState::waiting || listed.state == TaskState::ready)
      unstarted.push_back(task);
    if (!listed.record)
      continue;
    *summary->mutable_ending() = toMessage(listed.record->ending);
    summary->set_attempt(listed.record->attempt);
    const ledger::AttemptKey key{job, task, listed.record->attempt};
    addAttempt(*summary, ask([&](LedgerTables& tables) { return tables.attempt(key); }));
  }
  if (unstarted.empty())
    return sendReply(call, reply);

  // The ledger knows more than is kept: what it says is told once that is kept.
  const std::shared_ptr<DeferredReply> deferred = call.defer();
  keeper_.run([&](BookKeeper::Turn& turn) {
    std::map<TaskNumber, std::string> why;
    for (const TaskNumber task : unstarted) {
      if (const auto reason = turn.ledger().whyWaiting(job, task))
        why[task] = waitReasonText(*reason);
    }
    if (keeper_.store().room() >= store::Room::noGrants) {
      for (auto& [task, text] : why)
        text = "the store has no room for results: " + keeper_.store().roomText();
    }
    for (auto& summary : *reply.mutable_tasks()) {
      if (const auto found = why.find(summary.task()); found != why.end())
        summary.set_why_waiting(found->second);
    }
    resumeAfter(turn, deferred, [reply](ServerCall& later) { sendReply(later, reply); });
  });
}

void JobMethods::listWorkers(ServerCall& call) {
  readRequest<zksmessages::ListWorkersRequest>(call, options_.descriptionLimit);
  const std::shared_ptr<DeferredReply> deferred = call.defer();
  keeper_.run([&](BookKeeper::Turn& turn) {
    zksmessages::ListWorkersReply reply;
    const threads::MutexLock lock(heardMutex_);
    std::map<ledger::WorkerId, Alarms::Clock::time_point> still;
    for (const ledger::WorkerView& view : turn.ledger().workers()) {
      auto* worker = reply.add_workers();
      worker->set_worker(static_cast<std::uint64_t>(view.record.id));
      worker->set_name(view.record.name);
      *worker->mutable_resources() = toMessage(view.record.resources);
      worker->set_unreachable(view.record.state == ledger::WorkerState::unreachable);
      worker->set_draining(view.record.draining);
      worker->set_attempts(static_cast<std::uint32_t>(view.attempts));
      if (const auto heard = heard_.find(view.record.id); heard != heard_.end()) {
        *worker->mutable_since_heard() = scheduler::toMessage(Alarms::Clock::now() - heard->second);
        still.insert(*heard);
      }
    }
    heard_ = std::move(still);
    resumeAfter(turn, deferred, [reply](ServerCall& later) { sendReply(later, reply); });
  });
}

void JobMethods::drainWorker(ServerCall& call) {
  const auto request = readRequest<zksmessages::DrainWorkerRequest>(call, options_.descriptionLimit);
  const ledger::WorkerId worker{request.worker()};
  const auto decide = [&](BookKeeper::Turn& turn) { return turn.ledger().drainWorker(worker, turn.now()); };
  const auto answer = [](ServerCall& later, const ledger::Drained& drained) {
    zksmessages::DrainWorkerReply reply;
    reply.set_attempts(drained.attempts);
    sendReply(later, reply);
  };
  decideAndAnswer(keeper_, call, {.worker = worker}, decide, answer);
}

void JobMethods::describeService(ServerCall& call) {
  readRequest<zksmessages::DescribeServiceRequest>(call, options_.descriptionLimit);
  zksmessages::DescribeServiceReply reply;
  std::array<char, 256> host{};
  if (::gethostname(host.data(), host.size() - 1) == 0)
    reply.set_host(host.data());
  reply.set_version(options_.version);
  reply.set_process(static_cast<std::uint32_t>(::getpid()));
  reply.set_store(keeper_.folder().string());
  reply.set_started(started_.time_since_epoch().count());
  reply.set_room(keeper_.store().roomText());
  ask([&](LedgerTables& tables) {
    reply.set_jobs(tables.jobCount());
    *reply.mutable_counts() = toMessage(tables.counts());
    return true;
  });
  const std::shared_ptr<DeferredReply> deferred = call.defer();
  keeper_.run([&](BookKeeper::Turn& turn) {
    reply.set_workers(turn.ledger().workers().size());
    resumeAfter(turn, deferred, [reply](ServerCall& later) { sendReply(later, reply); });
  });
}

}  // namespace parallel::scheduler::methods
