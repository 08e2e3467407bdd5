// What changes a job as a whole, and what ends or retries its tasks.
#include <optional>
#include <utility>

#include "platform/errors/visibleText.h"
#include "scheduler/methods/JobMethods.h"
#include "scheduler/methods/holders.h"
#include "scheduler/methods/ledgerForms.h"
#include "scheduler/methods/requests.h"

namespace parallel::scheduler::methods {

using ledger::Done;
using ledger::JobId;
using zksmessages::JobRequest;

namespace {

// None: all of the job.
std::optional<ledger::TaskSet> tasksOf(const ServerCall& call,
                                       const google::protobuf::RepeatedPtrField<zksmessages::TaskSpan>& spans) {
  if (spans.empty())
    return std::nullopt;
  ledger::TaskSet tasks;
  for (const zksmessages::TaskSpan& span : spans) {
    constexpr std::uint64_t kMost = std::uint64_t{1} << 62;
    if (span.first() > span.last() || span.last() >= kMost)
      refuseField(call, "tasks",
                  std::to_string(span.first()) + " to " + std::to_string(span.last()) + " is not a span of tasks");
    tasks.add({span.first(), span.last()});
  }
  return tasks;
}

void unpinIn(BookKeeper::Turn& turn, const std::vector<JobId>& jobs) {
  turn.writeBeside([jobs, now = turn.now().wall](store::GroupCommit::Group& group) {
    for (const JobId job : jobs)
      store::BlobStore::unpinIn(group, holderOfJob(job), now);
  });
}

}  // namespace

template <class Change>
void JobMethods::changeJob(ServerCall& call, JobId job, Change change) {
  const auto decide = [&](BookKeeper::Turn& turn) { return change(turn); };
  const auto answer = [](ServerCall& later, const Done& done) {
    zksmessages::JobChangedReply reply;
    reply.set_version(done.version);
    sendReply(later, reply);
  };
  decideAndAnswer(keeper_, call, {.job = job}, decide, answer);
}

void JobMethods::closeJob(ServerCall& call) {
  const JobId job{readRequest<JobRequest>(call, options_.descriptionLimit).job()};
  changeJob(call, job, [job](BookKeeper::Turn& turn) { return turn.ledger().closeJob(job, turn.now()); });
}

void JobMethods::hold(ServerCall& call) {
  const JobId job{readRequest<JobRequest>(call, options_.descriptionLimit).job()};
  changeJob(call, job, [job](BookKeeper::Turn& turn) { return turn.ledger().hold(job, turn.now()); });
}

void JobMethods::release(ServerCall& call) {
  const JobId job{readRequest<JobRequest>(call, options_.descriptionLimit).job()};
  changeJob(call, job, [job](BookKeeper::Turn& turn) { return turn.ledger().release(job, turn.now()); });
}

void JobMethods::setPriority(ServerCall& call) {
  const auto request = readRequest<zksmessages::SetPriorityRequest>(call, options_.descriptionLimit);
  const JobId job{request.job()};
  changeJob(call, job, [job, priority = request.priority()](BookKeeper::Turn& turn) {
    return turn.ledger().setPriority(job, priority, turn.now());
  });
}

void JobMethods::deleteJob(ServerCall& call) {
  const JobId job{readRequest<JobRequest>(call, options_.descriptionLimit).job()};
  changeJob(call, job, [job](BookKeeper::Turn& turn) {
    auto decision = turn.ledger().deleteJob(job, turn.now());
    if (!decision.isRefused())
      unpinIn(turn, {job});
    return decision;
  });
}

void JobMethods::prune(ServerCall& call) {
  const auto request = readRequest<zksmessages::PruneRequest>(call, options_.descriptionLimit);
  const ledger::WallTime before{std::chrono::milliseconds(request.ended_before())};
  const auto decide = [&](BookKeeper::Turn& turn) {
    auto decision = turn.ledger().prune(before, turn.now());
    unpinIn(turn, decision.answer().jobs);
    return decision;
  };
  const auto answer = [](ServerCall& later, const ledger::Pruned& pruned) {
    zksmessages::PruneReply reply;
    for (const JobId job : pruned.jobs)
      reply.add_jobs(static_cast<std::uint64_t>(job));
    sendReply(later, reply);
  };
  decideAndAnswer(keeper_, call, {}, decide, answer);
}

void JobMethods::cancel(ServerCall& call) {
  const auto request = readRequest<zksmessages::CancelRequest>(call, options_.descriptionLimit);
  const ledger::Cancel event{JobId{request.job()}, tasksOf(call, request.tasks())};
  const auto decide = [&](BookKeeper::Turn& turn) { return turn.ledger().cancel(event, turn.now()); };
  const auto answer = [](ServerCall& later, const ledger::Cancelled& cancelled) {
    zksmessages::CancelReply reply;
    reply.set_stopped(cancelled.stopped);
    reply.set_already_ended(cancelled.alreadyEnded);
    for (const auto& [attempt, worker] : cancelled.running) {
      auto* running = reply.add_running();
      *running->mutable_attempt() = toMessage(attempt);
      running->set_worker(static_cast<std::uint64_t>(worker));
    }
    sendReply(later, reply);
  };
  decideAndAnswer(keeper_, call, {.job = event.job}, decide, answer);
}

void JobMethods::retry(ServerCall& call) {
  const auto request = readRequest<zksmessages::RetryRequest>(call, options_.descriptionLimit);
  checkKey(call, request.key());
  const ledger::Retry event{JobId{request.job()}, request.key(), tasksOf(call, request.tasks())};
  const auto decide = [&](BookKeeper::Turn& turn) { return turn.ledger().retry(event, turn.now()); };
  const auto answer = [](ServerCall& later, const ledger::Retried& retried) {
    zksmessages::RetryReply reply;
    reply.set_round(retried.round);
    reply.set_is_repeat(retried.isRepeat);
    sendReply(later, reply);
  };
  decideAndAnswer(keeper_, call, {.job = event.job}, decide, answer);
}

}  // namespace parallel::scheduler::methods
