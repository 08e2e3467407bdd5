// What workers call: join, take, renew, finish.
#include <algorithm>
#include <memory>
#include <set>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "scheduler/calls/durations.h"
#include "scheduler/methods/JobMethods.h"
#include "scheduler/methods/attemptResults.h"
#include "scheduler/methods/holders.h"
#include "scheduler/methods/ledgerForms.h"
#include "scheduler/methods/requests.h"

namespace parallel::scheduler::methods {

using ledger::AttemptKey;
using ledger::WorkerId;
using zksmessages::HeldAttempt;

namespace {

constexpr int kMostHeld = 100'000;
constexpr std::uint32_t kMostGrants = 10'000;
constexpr int kMostResults = 10'000;
constexpr std::chrono::seconds kRenewEvery{3};
// While somebody reads what an attempt of the worker writes; until then it does not know.
constexpr std::chrono::milliseconds kRenewWhileRead{500};

std::vector<ledger::HeldAttempt> heldOf(const ServerCall& call,
                                        const google::protobuf::RepeatedPtrField<HeldAttempt>& messages) {
  if (messages.size() > kMostHeld)
    refuseField(call, "held", "more than " + std::to_string(kMostHeld) + " attempts");
  std::vector<ledger::HeldAttempt> held;
  held.reserve(static_cast<std::size_t>(messages.size()));
  for (const HeldAttempt& message : messages)
    held.push_back({fromMessage(message.attempt()), message.started()});
  return held;
}

void checkResources(const ServerCall& call, const zksmessages::Resources& resources, const std::string& field) {
  constexpr int kMostNames = 64;
  constexpr std::size_t kMostNameBytes = 128;
  if (resources.named_size() > kMostNames)
    refuseField(call, field, "more than " + std::to_string(kMostNames) + " named resources");
  for (const auto& [name, count] : resources.named()) {
    if (name.empty() || name.size() > kMostNameBytes)
      refuseField(call, field, "the name of a resource has 1 to " + std::to_string(kMostNameBytes) + " bytes");
  }
}

template <class Reply>
void addStops(const std::vector<AttemptKey>& stop, Reply& reply) {
  for (const AttemptKey& key : stop)
    *reply.add_stop() = toMessage(key);
}

// Says when the client has gone, for as long as the call waits.
std::shared_ptr<const std::atomic<bool>> watchGivenUp(ServerCall& call) {
  auto flag = std::make_shared<std::atomic<bool>>(false);
  call.onCancel([flag] { *flag = true; });
  return flag;
}

}  // namespace

void JobMethods::noteHeard(WorkerId worker) {
  const threads::MutexLock lock(heardMutex_);
  heard_[worker] = Alarms::Clock::now();
}

void JobMethods::join(ServerCall& call) {
  const auto request = readRequest<zksmessages::JoinRequest>(call, options_.descriptionLimit);
  constexpr std::size_t kMostNameBytes = 256;
  checkKey(call, request.key());
  if (request.name().size() > kMostNameBytes)
    refuseField(call, "name", "more than " + std::to_string(kMostNameBytes) + " bytes");
  checkResources(call, request.resources(), "resources");
  ledger::Join event{request.key(), request.name(), fromMessage(request.resources()), request.sequence(),
                     heldOf(call, request.held())};
  const auto decide = [&](BookKeeper::Turn& turn) {
    auto decision = turn.ledger().join(event, turn.now());
    if (!decision.isRefused())
      noteHeard(decision.answer().worker);
    return decision;
  };
  const auto answer = [](ServerCall& later, const ledger::Joined& joined) {
    zksmessages::JoinReply reply;
    reply.set_worker(static_cast<std::uint64_t>(joined.worker));
    addStops(joined.stop, reply);
    *reply.mutable_renew_every() = scheduler::toMessage(kRenewEvery);
    sendReply(later, reply);
  };
  decideAndAnswer(keeper_, call, {.key = request.key()}, decide, answer);
}

void JobMethods::take(ServerCall& call) {
  const auto request = readRequest<zksmessages::TakeRequest>(call, options_.descriptionLimit);
  checkResources(call, request.room(), "room");
  ledger::Take event{WorkerId{request.worker()}, request.sequence(), heldOf(call, request.held()),
                     fromMessage(request.room()), std::min(request.limit(), kMostGrants)};
  const std::chrono::nanoseconds wait = request.limit() == 0 ? std::chrono::nanoseconds(0) : waitOf(request.wait());
  const auto isGivenUp = watchGivenUp(call);
  const std::shared_ptr<DeferredReply> deferred = call.defer();
  const auto answer = [this, deferred](const ledger::Taken& taken) {
    deferred->resume([this, taken](ServerCall& later) { sendTaken(later, taken); });
  };

  keeper_.run([&](BookKeeper::Turn& turn) {
    takes_.drop(turn, event.worker);
    // Without room for results nothing new is granted; what was granted before is told again.
    ledger::Take now = event;
    if (keeper_.store().room() >= store::Room::noGrants)
      now.limit = 0;
    auto outcome = turn.take(turn.ledger().take(now, turn.now()));
    if (const auto* refusal = std::get_if<ledger::Refusal>(&outcome))
      return resumeAfter(turn, deferred, [refusal = *refusal, event](ServerCall&) {
        throwRefusal(refusal, {.worker = event.worker, .sequence = event.sequence});
      });
    noteHeard(event.worker);
    const ledger::Taken& taken = std::get<ledger::Taken>(outcome);
    if (!taken.grants.empty() || !taken.stop.empty() || wait == std::chrono::nanoseconds(0))
      return turn.tell([answer, taken] { answer(taken); });
    takes_.add(turn, {event, isGivenUp, answer}, Alarms::Clock::now() + wait);
  });
}

void JobMethods::sendTaken(ServerCall& call, const ledger::Taken& taken) {
  zksmessages::TakeReply reply;
  std::set<ledger::TaskKey> sent;
  for (const ledger::Grant& grant : taken.grants) {
    auto* message = reply.add_grants();
    *message->mutable_attempt() = toMessage(grant.attempt);
    message->set_round(grant.round);
    message->set_array_first(grant.arrayFirst);
    message->set_alone(grant.alone);
    message->set_report_start(grant.reportStart);
    const auto array = arrays_.find({grant.attempt.job, grant.attempt.task}, wallTime());
    if (!array) {  // the job was deleted meanwhile: the worker gets nothing, and the grant is taken back
      reply.mutable_grants()->RemoveLast();
      continue;
    }
    if (array->lines)
      message->set_line(std::string(array->lines->at(grant.attempt.task - array->first)));
    if (sent.insert({grant.attempt.job, array->first}).second) {
      auto* granted = reply.add_arrays();
      granted->set_job(static_cast<std::uint64_t>(grant.attempt.job));
      granted->set_first_task(array->first);
      *granted->mutable_array() = array->message;
    }
  }
  addStops(taken.stop, reply);
  sendReply(call, reply);
}

void JobMethods::renew(ServerCall& call) {
  const auto request = readRequest<zksmessages::RenewRequest>(call, options_.descriptionLimit);
  ledger::Renew event{WorkerId{request.worker()}, heldOf(call, request.held())};
  const auto decide = [&](BookKeeper::Turn& turn) {
    auto decision = turn.ledger().renew(event, turn.now());
    if (decision.isRefused())
      return decision;
    noteHeard(event.worker);
    std::set<ledger::JobId> brought;
    for (const auto& piece : request.output()) {
      const AttemptKey key = fromMessage(piece.attempt());
      if (turn.ledger().workerOf(key) == event.worker &&
          running_.add({key, piece.stream()}, piece.offset(), piece.content()))
        brought.insert(key.job);
    }
    // What it brings is nothing of the books: it may be shown before these are kept.
    for (const ledger::JobId job : brought)
      outputs_.wakeAll(job);
    return decision;
  };
  const auto answer = [this, event](ServerCall& later, const ledger::Renewed& renewed) {
    zksmessages::RenewReply reply;
    addStops(renewed.stop, reply);
    std::vector<AttemptKey> held;
    for (const ledger::HeldAttempt& attempt : event.held)
      held.push_back(attempt.attempt);
    for (const RunningOutput::Wanted& wanted : running_.wanted(held)) {
      auto* message = reply.add_output();
      *message->mutable_attempt() = toMessage(wanted.stream.first);
      message->set_stream(static_cast<zksmessages::OutputFile::Stream>(wanted.stream.second));
      message->set_offset(wanted.offset);
    }
    *reply.mutable_renew_every() = scheduler::toMessage(
        reply.output_size() > 0 ? std::chrono::nanoseconds(kRenewWhileRead) : std::chrono::nanoseconds(kRenewEvery));
    sendReply(later, reply);
  };
  decideAndAnswer(keeper_, call, {.worker = event.worker}, decide, answer);
}

void JobMethods::finish(ServerCall& call) {
  auto request = readRequest<zksmessages::FinishRequest>(call, options_.descriptionLimit);
  if (request.results_size() > kMostResults)
    refuseField(call, "results", "more than " + std::to_string(kMostResults));
  const WorkerId worker{request.worker()};
  std::vector<DeliveredResult> results;
  results.reserve(static_cast<std::size_t>(request.results_size()));
  for (int i = 0; i < request.results_size(); ++i)
    results.emplace_back(call, "results[" + std::to_string(i) + "]", std::move(*request.mutable_results(i)));

  std::vector<bool> isHeld(results.size());
  keeper_.run([&](BookKeeper::Turn& turn) {
    for (std::size_t i = 0; i < results.size(); ++i)
      isHeld[i] = turn.ledger().workerOf(results[i].attempt()) == worker;
  });
  // What the worker does not have is refused by the ledger, or has its verdict: its blobs are of no interest.
  for (std::size_t i = 0; i < results.size(); ++i) {
    if (isHeld[i])
      results[i].keepBlobs(keeper_.store(), wallTime());
  }

  // In the order of the request: those that the ledger decides, and those for which something is missing.
  const auto decide = [&](BookKeeper::Turn& turn) {
    ledger::Finish event{worker, {}};
    for (const DeliveredResult& result : results) {
      if (result.isReady())
        event.results.push_back({result.attempt(), result.ending(), result.details()});
    }
    auto decision = turn.ledger().finish(event, turn.now());
    std::size_t next = 0;
    for (std::size_t i = 0; i < results.size(); ++i) {
      if (!results[i].isReady())
        continue;
      const ledger::Verdict& verdict = decision.answer().verdicts.at(next++);
      if (isHeld[i] && !results[i].digests().empty())
        turn.writeBeside([verdict, digests = results[i].digests(), now = turn.now().wall](auto& group) {
          if (verdict.isAccepted)
            store::BlobStore::pinIn(group, holderOfJob(verdict.attempt.job), digests);
          store::BlobStore::unpinIn(group, holderOfAttempt(verdict.attempt), now);
        });
      running_.drop(verdict.attempt);
    }
    return decision;
  };
  std::vector<zksmessages::FinishReply::Verdict> undecided;
  undecided.reserve(results.size());
  for (const DeliveredResult& result : results)
    undecided.push_back(result.undecided());
  const auto answer = [undecided](ServerCall& later, const ledger::Finished& finished) {
    zksmessages::FinishReply reply;
    auto decided = finished.verdicts.begin();
    for (const auto& verdict : undecided) {
      auto* message = reply.add_verdicts();
      *message = verdict;
      if (verdict.later() || verdict.missing_blobs_size() > 0)
        continue;
      message->set_accepted(decided->isAccepted);
      *message->mutable_ending() = toMessage(decided->ending);
      ++decided;
    }
    sendReply(later, reply);
  };
  decideAndAnswer(keeper_, call, {.worker = worker}, decide, answer);
}

}  // namespace parallel::scheduler::methods
