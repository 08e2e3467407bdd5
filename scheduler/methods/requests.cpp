#include "scheduler/methods/requests.h"

#include <algorithm>
#include <string_view>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/visibleText.h"
#include "scheduler/calls/durations.h"
#include "transport/streams/blockFormat.h"

namespace parallel::scheduler::methods {

using ledger::Refusal;
using spf::transport::ByteSink;

namespace {

template <class Id>
std::uint64_t numberOf(Id id) {
  return static_cast<std::uint64_t>(id);
}

}  // namespace

void refuseField(const ServerCall& call, const std::string& field, const std::string& problem) {
  throw Exception<parallel::scheduler::BadRequestField>(call.method(), field, problem);
}

void checkKey(const ServerCall& call, const std::string& key) {
  constexpr std::size_t kMostBytes = 128;
  constexpr std::string_view kAllowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";
  if (key.empty() || key.size() > kMostBytes || key.find_first_not_of(kAllowed) != std::string::npos)
    refuseField(call, "key",
                errors::inQuotes(key) + " is not a key: 1 to " + std::to_string(kMostBytes) +
                    " letters, digits, \"-\", \"_\" and \".\"");
}

std::chrono::nanoseconds waitOf(const google::protobuf::Duration& wait) {
  constexpr std::chrono::nanoseconds kMost = std::chrono::minutes(1);
  return isPositiveDuration(wait) ? std::min(scheduler::fromMessage(wait), kMost) : std::chrono::nanoseconds(0);
}

Reply::Reply(const google::protobuf::Message& result) {
  payload_.mutable_result()->set_type_url("type.googleapis.com/" + result.GetTypeName());
  payload_.mutable_result()->set_value(result.SerializeAsString());
}

void Reply::addFile(std::uint64_t nbytes, ReplyWriter::Producer producer) {
  items_.push_back({false, nbytes, std::move(producer)});
}

void Reply::addPlain(std::string bytes) {
  const std::uint64_t nbytes = bytes.size();
  items_.push_back({true, nbytes, [bytes = std::move(bytes)](ByteSink& sink) {
                      sink.write(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size());
                    }});
}

void Reply::send(ServerCall& call) const {
  using spf::transport::block_format::framedBytes;
  std::uint64_t nbytes = ReplyWriter::kHeadBytes + framedBytes(payload_.ByteSizeLong());
  for (const Item& item : items_)
    nbytes += item.isPlain ? ReplyWriter::framedPlainBytes(item.nbytes) : framedBytes(item.nbytes);
  call.setReplySize(static_cast<long>(nbytes));
  ReplyWriter writer(call.reply(), static_cast<std::int32_t>(1 + items_.size()));
  writer.writeMessage(payload_);
  for (const Item& item : items_) {
    if (item.isPlain)
      writer.writePlain(item.nbytes, item.producer);
    else
      writer.writeItem(item.producer);
  }
  writer.finish();
}

void throwRefusal(Refusal refusal, const RefusedEvent& event) {
  using namespace parallel::scheduler;  // NOLINT(google-build-using-namespace): the tags of the catalogue
  const std::uint64_t job = numberOf(event.job);
  switch (refusal) {
    case Refusal::keyConflict:
      throw Exception<KeyConflict>(errors::inQuotes(event.key));
    case Refusal::unknownJob:
      throw Exception<UnknownJob>(job);
    case Refusal::jobDeleted:
      throw Exception<JobDeleted>(errors::inQuotes(event.key));
    case Refusal::jobClosed:
      throw Exception<JobClosed>(job);
    case Refusal::extensionConflict:
      throw Exception<ExtensionConflict>(job, event.task);
    case Refusal::badArray:
      throw Exception<BadTaskArray>();
    case Refusal::badDependency:
      throw Exception<BadDependency>();
    case Refusal::jobUnfinished:
      throw Exception<JobUnfinished>(job);
    case Refusal::nothingToRetry:
      throw Exception<NothingToRetry>(job);
    case Refusal::unknownTask:
      throw Exception<UnknownTask>(job, event.task);
    case Refusal::unknownWorker:
      throw Exception<UnknownWorker>(numberOf(event.worker));
    case Refusal::staleTake:
      break;
  }
  throw Exception<StaleTake>(numberOf(event.worker), event.sequence);
}

}  // namespace parallel::scheduler::methods
