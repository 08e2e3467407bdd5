// What attempts have written: fetchOutputs, readOutput.
#include <algorithm>
#include <optional>
#include <utility>
#include <variant>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "scheduler/methods/JobMethods.h"
#include "scheduler/methods/attemptResults.h"
#include "scheduler/methods/blobItems.h"
#include "scheduler/methods/ledgerForms.h"
#include "scheduler/methods/requests.h"

namespace parallel::scheduler::methods {

using ledger::AttemptRecord;
using ledger::JobId;
using ledger::TaskNumber;
using store::Digest;
using store::LedgerTables;
using zksmessages::AttemptResult;
using zksmessages::OutputFile;

namespace {

// Tasks that have ended with an attempt, gathered for one reply.
class GatheredOutputs {
 public:
  static constexpr std::size_t kMostTasks = 10'000;
  static constexpr std::size_t kMostFiles = 100'000;

  explicit GatheredOutputs(std::uint64_t mostBytes) : mostBytes_(mostBytes) {}

  bool isFull() const {
    return nbytes_ >= mostBytes_ || files_.size() >= kMostFiles ||
           static_cast<std::size_t>(reply_.tasks_size()) >= kMostTasks;
  }

  void add(const ledger::TaskRecord& task, const std::optional<AttemptRecord>& attempt) {
    auto* outputs = reply_.add_tasks();
    outputs->set_task(task.task);
    outputs->set_state(toMessage(task.state));
    *outputs->mutable_ending() = toMessage(task.ending);
    if (!attempt)
      return;
    AttemptResult result = resultOf(*attempt);
    if (result.has_info())
      *outputs->mutable_info() = std::move(*result.mutable_info());
    for (OutputFile& file : *result.mutable_files()) {
      nbytes_ += file.content().nbytes();
      files_.push_back(file.content());
      file.mutable_content()->clear_content();
      *outputs->add_files() = std::move(file);
    }
  }

  void goOnAt(TaskNumber task) { reply_.set_next_task(task); }

  void send(ServerCall& call, store::BlobStore& blobs, store::WallTime now) const {
    Reply reply(reply_);
    for (const zksmessages::Blob& file : files_)
      reply.addFile(file.nbytes(), blobProducer(blobs, file, 0, now));
    reply.send(call);
  }

 private:
  const std::uint64_t mostBytes_;
  std::uint64_t nbytes_ = 0;
  zksmessages::FetchOutputsReply reply_;
  std::vector<zksmessages::Blob> files_;
};

}  // namespace

void JobMethods::fetchOutputs(ServerCall& call) {
  constexpr std::uint64_t kUsualBytes = std::uint64_t{16} << 20;
  constexpr std::uint64_t kMostBytes = std::uint64_t{1} << 30;
  constexpr std::size_t kTasksAtOnce = 256;
  const auto request = readRequest<zksmessages::FetchOutputsRequest>(call, options_.descriptionLimit);
  const JobId job{request.job()};
  if (request.first_task() > request.last_task())
    refuseField(call, "last_task",
                std::to_string(request.last_task()) + " comes before " + std::to_string(request.first_task()));
  if (!ask([job](LedgerTables& tables) { return tables.progress(job); }))
    throwRefusal(ledger::Refusal::unknownJob, {.job = job});

  GatheredOutputs outputs(request.nbytes() == 0 ? kUsualBytes : std::min(request.nbytes(), kMostBytes));
  TaskNumber next = request.first_task();
  for (bool isMore = true; isMore;) {
    isMore = ask([&](LedgerTables& tables) {
      const auto tasks = tables.tasksFrom({job, next}, {}, kTasksAtOnce);
      for (const ledger::TaskRecord& task : tasks) {
        if (task.task > request.last_task())
          return false;
        if (outputs.isFull()) {
          outputs.goOnAt(task.task);
          return false;
        }
        next = task.task + 1;
        if (ledger::hasEnded(task.state))
          outputs.add(task, tables.attempt({job, task.task, task.attempt}));
      }
      return tasks.size() == kTasksAtOnce;
    });
  }
  outputs.send(call, keeper_.store().blobs(), wallTime());
}

// One call of readOutput, for as long as it waits.
class JobMethods::OutputReading {
 public:
  OutputReading(JobMethods& methods, const ServerCall& call, zksmessages::ReadOutputRequest request)
      : methods_(methods),
        request_(std::move(request)),
        job_{request_.job()},
        deadline_(Alarms::Clock::now() + waitOf(request_.wait())) {
    constexpr std::uint32_t kMostBytes = std::uint32_t{1} << 20;
    if (request_.stream() != OutputFile::STREAM_STANDARD_OUTPUT &&
        request_.stream() != OutputFile::STREAM_STANDARD_ERROR)
      refuseField(call, "stream", "only standard output and standard error can be read");
    if (request_.nbytes() > kMostBytes)
      refuseField(call, "nbytes", std::to_string(request_.nbytes()) + " is more than " + std::to_string(kMostBytes));
    if (request_.nbytes() == 0)
      request_.set_nbytes(kMostBytes);
  }

  // Answers, or waits and tries again.
  static void serve(const std::shared_ptr<OutputReading>& self, ServerCall& call) {
    const std::optional<std::uint64_t> version = self->tryAnswer(call);
    if (!version)
      return;
    const std::shared_ptr<DeferredReply> deferred = call.defer();
    const auto again = [self](ServerCall& later) { serve(self, later); };
    self->methods_.keeper_.run([&](BookKeeper::Turn& turn) {
      const auto progress = turn.ledger().progress(self->job_);
      if (!progress || progress->version > *version)
        return resumeAfter(turn, deferred, again);
      self->methods_.outputs_.wait(self->job_, *version, self->deadline_,
                                   [deferred, again] { deferred->resume(again); });
    });
    // It may have come before this call waited.
    if (self->hasMore())
      self->methods_.outputs_.wakeAll(self->job_);
  }

 private:
  struct Found {
    std::uint64_t version = 0;
    std::optional<AttemptRecord> attempt;
  };

  // Answered when it has no value; otherwise the version of the job at which there was nothing to say.
  std::optional<std::uint64_t> tryAnswer(ServerCall& call) {
    const Found found = find();
    key_ = found.attempt->key;
    if (found.attempt->state == ledger::AttemptState::ended) {
      answerEnded(call, resultOf(*found.attempt));
      return std::nullopt;
    }
    std::string bytes = methods_.running_.read({key_, request_.stream()}, request_.offset(), request_.nbytes());
    if (bytes.empty() && Alarms::Clock::now() < deadline_)
      return found.version;
    send(call, std::move(bytes), false);
    return std::nullopt;
  }

  Found find() {
    Found found = methods_.ask([this](LedgerTables& tables) {
      Found there;
      const auto progress = tables.progress(job_);
      if (!progress)
        throwRefusal(ledger::Refusal::unknownJob, {.job = job_});
      there.version = progress->version;
      std::uint64_t number = request_.attempt();
      if (number == 0) {
        const auto task = tables.task({job_, request_.task()});
        number = task ? task->attempt : 0;
      }
      there.attempt = tables.attempt({job_, request_.task(), number});
      return there;
    });
    if (!found.attempt)
      throw Exception<parallel::scheduler::UnknownAttempt>(request_.job(), request_.task(), request_.attempt());
    return found;
  }

  bool hasMore() { return !methods_.running_.read({key_, request_.stream()}, request_.offset(), 1).empty(); }

  void answerEnded(ServerCall& call, const AttemptResult& result) {
    for (const OutputFile& file : result.files()) {
      if (file.stream() == request_.stream())
        return answerFrom(call, file.content());
    }
    send(call, "", true);
  }

  void answerFrom(ServerCall& call, const zksmessages::Blob& blob) {
    const std::uint64_t offset = std::min(request_.offset(), blob.nbytes());
    std::string bytes;
    if (blob.has_content()) {
      bytes = blob.content().substr(static_cast<std::size_t>(offset), request_.nbytes());
    } else if (offset < blob.nbytes()) {
      const Digest digest = *Digest::fromBytes(blob.sha256());
      bytes = methods_.readers_.read(digest, offset, request_.nbytes(), methods_.wallTime());
    }
    const bool isEnd = offset + bytes.size() >= blob.nbytes();
    send(call, std::move(bytes), isEnd);
  }

  void send(ServerCall& call, std::string bytes, bool isEnd) const {
    zksmessages::ReadOutputReply message;
    message.set_attempt(key_.number);
    message.set_next_offset(request_.offset() + bytes.size());
    message.set_ended(isEnd);
    Reply reply(message);
    reply.addPlain(std::move(bytes));
    reply.send(call);
  }

  JobMethods& methods_;
  zksmessages::ReadOutputRequest request_;
  const JobId job_;
  const Alarms::Clock::time_point deadline_;
  ledger::AttemptKey key_;
};

void JobMethods::readOutput(ServerCall& call) {
  auto request = readRequest<zksmessages::ReadOutputRequest>(call, options_.descriptionLimit);
  OutputReading::serve(std::make_shared<OutputReading>(*this, call, std::move(request)), call);
}

}  // namespace parallel::scheduler::methods
