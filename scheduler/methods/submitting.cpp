// Jobs and tasks that come in.
#include <memory>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/visibleText.h"
#include "scheduler/methods/JobMethods.h"
#include "scheduler/methods/TaskArrays.h"
#include "scheduler/methods/holders.h"
#include "scheduler/methods/requests.h"

namespace parallel::scheduler::methods {

using ledger::JobId;
using store::Digest;

namespace {

// Which of the blobs are missing, once those that came inside the message are there.
template <class Reply>
bool lacksBlobs(store::BlobStore& blobs, const store::Holder& holder, const TaskArrays& arrays, store::WallTime now,
                Reply& reply) {
  if (!arrays.contents().empty())
    blobs.putSmall(holder, arrays.contents(), now);
  if (arrays.digests().empty())
    return false;
  for (const Digest& digest : blobs.pin(holder, arrays.digests(), now))
    reply.add_missing_blobs(std::string(digest.bytes()));
  return reply.missing_blobs_size() > 0;
}

// Of those that came as blobs: the others were counted when the message was checked.
void countLinesOf(store::BlobStore& blobs, const TaskArrays& arrays, const std::string& field, store::WallTime now) {
  for (int i = 0; i < arrays.messages().size(); ++i) {
    const zksmessages::TaskArray& array = arrays.messages()[i];
    if (!array.has_lines())
      continue;
    const std::string name = field + "[" + std::to_string(i) + "].lines";
    const auto reader = blobs.open(*Digest::fromBytes(array.lines().sha256()), now);
    if (reader->nbytes() > kMostLinesBytes)
      throw Exception<parallel::scheduler::BadJobField>(
          name, "lines have " + std::to_string(kMostLinesBytes) + " bytes at most");
    const std::uint64_t count = countLines(reader->read(static_cast<std::size_t>(reader->nbytes())));
    if (count != array.count())
      throw Exception<parallel::scheduler::BadJobField>(
          name, std::to_string(count) + " lines for " + std::to_string(array.count()) + " tasks");
  }
}

void expectRoom(const store::Store& store) {
  if (store.room() >= store::Room::noSubmissions)
    throw Exception<parallel::scheduler::NoRoomForJobs>(store.roomText());
}

zksmessages::JobDescription withoutArrays(const zksmessages::JobDescription& job) {
  zksmessages::JobDescription kept;
  kept.set_name(job.name());
  kept.set_priority(job.priority());
  kept.set_held(job.held());
  kept.set_open(job.open());
  return kept;
}

ledger::SubmitJob eventOf(const std::string& key, const zksmessages::JobDescription& job, const TaskArrays& arrays) {
  ledger::SubmitJob event;
  event.key = key;
  event.name = job.name();
  event.priority = job.priority();
  event.held = job.held();
  event.open = job.open();
  event.arrays = arrays.specs();
  zksmessages::JobDescription kept = withoutArrays(job);
  event.details = kept.SerializeAsString();
  *kept.mutable_arrays() = arrays.messages();
  event.digest = std::string(Digest::of(stableBytes(kept)).bytes());
  return event;
}

void checkJob(const zksmessages::JobDescription& job) {
  constexpr std::size_t kMostNameBytes = 256;
  if (job.name().size() > kMostNameBytes || job.name().find('\0') != std::string::npos)
    throw Exception<parallel::scheduler::BadJobField>(
        "name", "a name has " + std::to_string(kMostNameBytes) + " bytes at most, and no NUL");
  if (job.arrays_size() == 0 && !job.open())
    throw Exception<parallel::scheduler::BadJobField>("arrays", "there are none, and no more can come");
}

}  // namespace

void JobMethods::submitJob(ServerCall& call) {
  auto request = readRequest<zksmessages::SubmitJobRequest>(call, options_.descriptionLimit);
  const std::string key = request.key();
  checkKey(call, key);
  checkJob(request.job());
  const TaskArrays arrays(std::move(*request.mutable_job()->mutable_arrays()), "arrays");

  // A repeat needs neither room nor blobs.
  bool isKnown = false;
  keeper_.run([&](BookKeeper::Turn& turn) { isKnown = turn.ledger().knowsKey(key); });
  if (!isKnown) {
    expectRoom(keeper_.store());
    zksmessages::SubmitJobReply reply;
    if (lacksBlobs(keeper_.store().blobs(), holderOfKey(key), arrays, wallTime(), reply))
      return sendReply(call, reply);
    countLinesOf(keeper_.store().blobs(), arrays, "arrays", wallTime());
  }

  const auto decide = [&](BookKeeper::Turn& turn) {
    auto decision = turn.ledger().submitJob(eventOf(key, request.job(), arrays), turn.now());
    if (decision.isRefused())
      return decision;
    // What the key has pinned is the job's now.
    turn.writeBeside([key, job = decision.answer().job, isRepeat = decision.answer().isRepeat,
                      digests = arrays.digests(), now = turn.now().wall](store::GroupCommit::Group& group) {
      if (!isRepeat)
        store::BlobStore::pinIn(group, holderOfJob(job), digests);
      store::BlobStore::unpinIn(group, holderOfKey(key), now);
    });
    return decision;
  };
  const auto answer = [](ServerCall& later, const ledger::Submitted& submitted) {
    zksmessages::SubmitJobReply reply;
    reply.set_job(static_cast<std::uint64_t>(submitted.job));
    reply.set_is_repeat(submitted.isRepeat);
    sendReply(later, reply);
  };
  decideAndAnswer(keeper_, call, {.key = key}, decide, answer);
}

void JobMethods::extendJob(ServerCall& call) {
  auto request = readRequest<zksmessages::ExtendJobRequest>(call, options_.descriptionLimit);
  const JobId job{request.job()};
  const ledger::TaskNumber first = request.first_task();
  if (request.arrays_size() == 0)
    throw Exception<parallel::scheduler::BadJobField>("arrays", "there are none");
  const TaskArrays arrays(std::move(*request.mutable_arrays()), "arrays");

  bool isThere = false;
  keeper_.run([&](BookKeeper::Turn& turn) { isThere = turn.ledger().progress(job).has_value(); });
  if (isThere) {  // otherwise the ledger refuses it
    expectRoom(keeper_.store());
    zksmessages::ExtendJobReply reply;
    if (lacksBlobs(keeper_.store().blobs(), holderOfJob(job), arrays, wallTime(), reply))
      return sendReply(call, reply);
    countLinesOf(keeper_.store().blobs(), arrays, "arrays", wallTime());
  }

  const auto decide = [&](BookKeeper::Turn& turn) {
    *request.mutable_arrays() = arrays.messages();
    ledger::ExtendJob event{job, first, std::string(Digest::of(stableBytes(request)).bytes()), arrays.specs()};
    return turn.ledger().extendJob(event, turn.now());
  };
  const auto answer = [](ServerCall& later, const ledger::Extended& extended) {
    zksmessages::ExtendJobReply reply;
    reply.set_next_task(extended.nextTask);
    reply.set_is_repeat(extended.isRepeat);
    sendReply(later, reply);
  };
  decideAndAnswer(keeper_, call, {.job = job, .task = first}, decide, answer);
}

}  // namespace parallel::scheduler::methods
