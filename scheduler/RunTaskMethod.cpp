#include "scheduler/RunTaskMethod.h"

#include <cstdint>
#include <set>
#include <string_view>
#include <utility>

#include "platform/spf/core/errors.h"
#include "scheduler/CallCancellation.h"
#include "scheduler/FileTransfer.h"
#include "scheduler/ReplyWriter.h"
#include "scheduler/RequestReader.h"
#include "scheduler/TaskScratch.h"
#include "scheduler/checkTaskDescription.h"
#include "scheduler/durations.h"

namespace parallel::scheduler {

using agent::spf::core::ServerCall;
using spf::transport::ByteSink;
using spf::transport::block_format::framedBytes;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using zksmessages::TaskDescription;
using zksmessages::TaskLimits;
using zksmessages::TesselTaskExecutionInfo;

namespace {

constexpr std::int32_t kFixedReplyItems = 3;  // the result, standard output and standard error

[[noreturn]] void throwAbandoned() {
  throw agent::spf::Terminated("The call was given up by its client");
}

void receiveInputs(RequestReader& request, const TaskDescription& task, TaskScratch& scratch) {
  for (const std::string& name : task.input_files()) {
    const UniqueFd file = scratch.createInput(name);
    FileSink sink(file.get(), "the input file \"" + name + "\"");
    request.readItem(sink);
  }
  request.expectEnd();
}

ProcessLimits limitsOf(const TaskLimits& limits) {
  ProcessLimits result;
  if (limits.has_wall_time())
    result.wallTime = fromMessage(limits.wall_time());
  if (limits.has_cpu_time())
    result.cpuTime = fromMessage(limits.cpu_time());
  if (limits.has_memory_bytes())
    result.memoryBytes = limits.memory_bytes();
  if (limits.has_file_bytes())
    result.fileBytes = limits.file_bytes();
  if (limits.has_open_files())
    result.openFiles = limits.open_files();
  return result;
}

void describeOutcome(const ProcessResult& result, TesselTaskExecutionInfo& info) {
  switch (result.outcome) {
    case ProcessResult::Outcome::Exited:
      info.set_outcome(TesselTaskExecutionInfo::OUTCOME_EXITED);
      info.set_exit_status(result.exitStatus);
      break;
    case ProcessResult::Outcome::Signalled:
      info.set_outcome(TesselTaskExecutionInfo::OUTCOME_SIGNALLED);
      info.set_signal(result.signal);
      break;
    case ProcessResult::Outcome::TimedOut:
      info.set_outcome(TesselTaskExecutionInfo::OUTCOME_TIMED_OUT);
      break;
    case ProcessResult::Outcome::NotStarted:
      info.set_outcome(TesselTaskExecutionInfo::OUTCOME_NOT_STARTED);
      break;
    case ProcessResult::Outcome::Stopped:
      throwAbandoned();
  }
}

TesselTaskExecutionInfo executionInfo(const ProcessResult& result, nanoseconds queuedTime) {
  TesselTaskExecutionInfo info;
  describeOutcome(result, info);
  info.set_message(result.message);
  *info.mutable_wall_time() = toMessage(result.wallTime);
  *info.mutable_user_time() = toMessage(result.userTime);
  *info.mutable_system_time() = toMessage(result.systemTime);
  *info.mutable_queued_time() = toMessage(queuedTime);
  info.set_peak_memory_bytes(result.peakMemoryBytes);
  return info;
}

zksmessages::ResultPayload resultPayload(const TesselTaskExecutionInfo& info) {
  zksmessages::ResultPayload payload;
  payload.mutable_result()->set_type_url("type.googleapis.com/" + info.GetTypeName());
  payload.mutable_result()->set_value(info.SerializeAsString());
  return payload;
}

// A file of the reply: bytes that are sure to be sent, so that sizes can be announced beforehand.
struct ReplyFile {
  std::string name;
  bool exists = false;
  std::uint64_t nbytes = 0;
};

// What the task left behind, as the reply will hold it. Looks at everything before the first byte of the reply is
// written, so that what cannot be returned is a clean error.
class TaskReply {
 public:
  TaskReply(const TaskDescription& task, const TaskScratch& scratch, TesselTaskExecutionInfo info)
      : scratch_(scratch),
        outputBytes_(fileBytes(scratch.standardOutput(), "the standard output")),
        errorBytes_(fileBytes(scratch.standardError(), "the standard error")) {
    for (const std::string& name : task.output_files()) {
      const auto status = scratch.outputStatus(name);
      files_.push_back({name, status.exists, status.nbytes});
      if (!status.exists)
        info.add_missing_outputs(name);
    }
    result_ = resultPayload(info);
  }

  std::uint64_t nbytes() const {
    std::uint64_t total = ReplyWriter::kHeadBytes + framedBytes(result_.ByteSizeLong()) +
                          ReplyWriter::framedPlainBytes(outputBytes_) + ReplyWriter::framedPlainBytes(errorBytes_);
    for (const ReplyFile& file : files_)
      total += framedBytes(file.nbytes);
    return total;
  }

  void write(std::ostream& reply) const {
    ReplyWriter writer(reply, kFixedReplyItems + static_cast<std::int32_t>(files_.size()));
    writer.writeMessage(result_);
    writer.writePlain(outputBytes_, [&](ByteSink& sink) {
      copyFile(scratch_.standardOutput(), "the standard output", outputBytes_, sink);
    });
    writer.writePlain(errorBytes_, [&](ByteSink& sink) {
      copyFile(scratch_.standardError(), "the standard error", errorBytes_, sink);
    });
    for (const ReplyFile& file : files_)
      writer.writeItem([&](ByteSink& sink) { copyOutput(file, sink); });
    writer.finish();
  }

 private:
  void copyOutput(const ReplyFile& file, ByteSink& sink) const {
    if (!file.exists)
      return;
    const UniqueFd fd = scratch_.openOutput(file.name);
    copyFile(fd.get(), "the output file \"" + file.name + "\"", file.nbytes, sink);
  }

  const TaskScratch& scratch_;
  std::uint64_t outputBytes_;
  std::uint64_t errorBytes_;
  std::vector<ReplyFile> files_;
  zksmessages::ResultPayload result_;
};

}  // namespace

RunTaskMethod::RunTaskMethod(Settings settings, ScratchArea::Logger& logger)
    : settings_(std::move(settings)), area_(settings_.scratchParent, logger), slots_(settings_.slots) {}

void RunTaskMethod::serve(ServerCall& call) {
  const CallCancellation cancellation(call);
  RequestReader request(call.request(), call.method());
  request.expectItemsAtLeast(1);
  TaskDescription task;
  request.readMessage(task);
  checkTaskDescription(task);
  request.expectItems(1 + static_cast<std::uint64_t>(task.input_files_size()));

  TaskScratch scratch(area_);
  receiveInputs(request, task, scratch);

  const auto queuedAt = steady_clock::now();
  TaskSlots::Slot slot = slots_.acquire(cancellation.token());
  if (!slot)
    throwAbandoned();
  const nanoseconds queuedTime = steady_clock::now() - queuedAt;
  const ProcessResult result = runProcess(processSpec(task, scratch), cancellation.token());
  slot.release();  // a slow reader of the reply keeps nobody from running

  const TaskReply reply(task, scratch, executionInfo(result, queuedTime));
  call.setReplySize(static_cast<long>(reply.nbytes()));
  reply.write(call.reply());
}

ProcessSpec RunTaskMethod::processSpec(const TaskDescription& task, const TaskScratch& scratch) const {
  ProcessSpec spec;
  spec.argv.assign(task.argv().begin(), task.argv().end());
  if (!task.clear_environment()) {
    for (const std::string& entry : settings_.environment) {
      if (!task.environment().contains(entry.substr(0, entry.find('='))))
        spec.environment.push_back(entry);
    }
  }
  for (const auto& [name, value] : task.environment())
    spec.environment.emplace_back(name).append("=").append(value);
  spec.directory = scratch.workDirectory();
  spec.standardOutput = scratch.standardOutput();
  spec.standardError = scratch.standardError();
  spec.limits = limitsOf(task.limits());
  spec.killGrace = settings_.killGrace;
  return spec;
}

}  // namespace parallel::scheduler
