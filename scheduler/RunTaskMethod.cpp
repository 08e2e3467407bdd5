#include "scheduler/RunTaskMethod.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <limits>
#include <set>
#include <string_view>
#include <utility>

#include "execution/FileTransfer.h"
#include "execution/TaskScratch.h"
#include "platform/errors/systemError.h"
#include "platform/errors/visibleText.h"
#include "platform/logging/sinks.h"
#include "platform/spf/core/errors.h"
#include "scheduler/CallCancellation.h"
#include "scheduler/ReplyWriter.h"
#include "scheduler/RequestReader.h"
#include "scheduler/checkTaskDescription.h"
#include "scheduler/durations.h"

namespace parallel::scheduler {

using agent::spf::core::ServerCall;
using errors::inQuotes;
using execution::FilePool;
using execution::fileStatus;
using execution::OutputStatus;
using execution::ProcessLimits;
using execution::ProcessResult;
using execution::ProcessSpec;
using execution::ScratchArea;
using execution::TaskDescriptors;
using execution::TaskScratch;
using spf::transport::ByteSink;
using spf::transport::block_format::framedBytes;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using zksmessages::TaskDescription;
using zksmessages::TaskLimits;
using zksmessages::TesselTaskExecutionInfo;

namespace {

// More would only be open at once where the disk is the bottleneck.
constexpr std::size_t kOpenFiles = 32;

void addSentence(std::string& text, const std::string& sentence) {
  text += (text.empty() ? "" : " ") + sentence;
}

[[noreturn]] void throwAbandoned() {
  throw agent::spf::Terminated("The call was given up by its client");
}

std::uint64_t requestItems(const TaskDescription& task) {
  return 1 + (task.standard_input() ? 1 : 0) + static_cast<std::uint64_t>(task.input_files_size());
}

void receiveInto(const std::filesystem::path& path, std::string what, RequestReader& request, FilePool& files) {
  FilePool::File file(files, path, O_WRONLY | O_APPEND, std::move(what));
  execution::FileSink sink(file);
  request.readItem(sink);
}

void receiveInputs(RequestReader& request, const TaskDescription& task, const TaskScratch& scratch, FilePool& files) {
  if (task.standard_input())
    receiveInto(scratch.createStandardInput(), "the standard input", request, files);
  for (const std::string& name : task.input_files())
    receiveInto(scratch.createInput(name), "the input file " + inQuotes(name), request, files);
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

// Never the message: it may show the task's environment.
std::string outcomeText(const ProcessResult& result) {
  switch (result.outcome) {
    case ProcessResult::Outcome::Exited:
      return "exited " + std::to_string(result.exitStatus);
    case ProcessResult::Outcome::Signalled:
      return "signal " + std::to_string(result.signal);
    case ProcessResult::Outcome::TimedOut:
      return "timed out";
    case ProcessResult::Outcome::NotStarted:
      return "not started";
    default:
      return "given up";
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

// Which outputs are programs. An input may be run whatever it was where it came from: that is handed back as it came,
// unless the task changed its permissions.
class ProgramOutputs {
 public:
  explicit ProgramOutputs(const TaskDescription& task)
      : inputs_(task.input_files().begin(), task.input_files().end()),
        programs_(task.executable_inputs().begin(), task.executable_inputs().end()) {}

  bool contains(std::string_view name, mode_t permissions) const {
    const bool asItCame = permissions == TaskScratch::kInputPermissions && inputs_.contains(name);
    return (permissions & S_IXUSR) != 0 && (!asItCame || programs_.contains(name));
  }

 private:
  const std::set<std::string_view> inputs_;
  const std::set<std::string_view> programs_;
};

// What the task left behind, as the reply will hold it. Looks at everything before the first byte of the reply is
// written, and tells the sizes beforehand; what cannot be returned is empty, and said.
class TaskReply {
 public:
  TaskReply(const TaskDescription& task, const TaskScratch& scratch, FilePool& files, TesselTaskExecutionInfo info)
      : pool_(files) {
    addCapture(scratch.standardOutput(), "the standard output", info);
    addCapture(scratch.standardError(), "the standard error", info);
    const ProgramOutputs programs(task);
    for (const std::string& name : task.output_files())
      addOutput(scratch.output(name), name, programs, info);
    result_ = resultPayload(info);
  }

  std::uint64_t nbytes() const { return dataBytes_ + framedBytes(result_.ByteSizeLong()); }

  void write(std::ostream& reply) const {
    ReplyWriter writer(reply, static_cast<std::int32_t>(1 + files_.size()));
    writer.writeMessage(result_);
    for (std::size_t i = 0; i < files_.size(); ++i) {
      const File& file = files_[i];
      const auto copy = [&](ByteSink& sink) { copyOut(file, sink); };
      if (i < kCaptures)
        writer.writePlain(file.nbytes, copy);
      else
        writer.writeItem(copy);
    }
    writer.finish();
  }

 private:
  static constexpr std::size_t kCaptures = 2;
  // No reply can say that it has more.
  static constexpr std::uint64_t kMostBytes = std::numeric_limits<std::int64_t>::max() - (std::int64_t{1} << 32);

  struct File {
    std::filesystem::path path;
    std::string what;
    std::uint64_t nbytes = 0;
  };

  void addCapture(std::filesystem::path path, std::string what, TesselTaskExecutionInfo& info) {
    OutputStatus status = fileStatus(path);
    if (!status.isThere) {
      const std::string problem = status.problem.empty() ? "its file is gone" : status.problem;
      addSentence(*info.mutable_message(), "What it wrote to " + what + " is lost: " + problem + ".");
    }
    add({std::move(path), std::move(what), status.nbytes}, ReplyWriter::framedPlainBytes(status.nbytes));
  }

  void addOutput(std::filesystem::path path, const std::string& name, const ProgramOutputs& programs,
                 TesselTaskExecutionInfo& info) {
    OutputStatus status = fileStatus(path);
    if (status.nbytes > kMostBytes - dataBytes_ || framedBytes(status.nbytes) > kMostBytes - dataBytes_)
      status = {.isThere = false,
                .nbytes = 0,
                .permissions = 0,
                .problem = "no reply can hold its " + std::to_string(status.nbytes) + " bytes"};
    if (!status.isThere)
      info.add_missing_outputs(name);
    else if (programs.contains(name, status.permissions))
      info.add_executable_outputs(name);
    if (!status.problem.empty())
      (*info.mutable_unusable_outputs())[name] = status.problem;
    add({std::move(path), "the output file " + inQuotes(name), status.nbytes}, framedBytes(status.nbytes));
  }

  void add(File file, std::uint64_t inReply) {
    files_.push_back(std::move(file));
    dataBytes_ += inReply;
  }

  void copyOut(const File& file, ByteSink& sink) const {
    // Not blocking: what was a file a moment ago may be a pipe by now.
    FilePool::File opened(pool_, file.path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK, file.what);
    execution::copyFile(opened, file.nbytes, sink);
  }

  FilePool& pool_;
  std::vector<File> files_;  // standard output and error, then the outputs
  std::uint64_t dataBytes_ = ReplyWriter::kHeadBytes;
  zksmessages::ResultPayload result_;
};

}  // namespace

RunTaskMethod::RunTaskMethod(Settings settings, ScratchArea::Logger& logger)
    : settings_(std::move(settings)),
      logger_(logger),
      area_(settings_.scratchParent, logger),
      files_(kOpenFiles),
      slots_(settings_.slots) {}

void RunTaskMethod::serve(ServerCall& call, CallRecord& record) {
  const CallCancellation cancellation(call);
  RequestReader request(call.request(), call.method());
  request.expectItemsAtLeast(1);
  TaskDescription task;
  request.readMessage(task);
  checkTaskDescription(task);
  record.program = task.argv(0);
  request.expectItems(requestItems(task));

  const TaskScratch scratch(area_);
  receiveInputs(request, task, scratch, files_);

  const auto queuedAt = steady_clock::now();
  TaskSlots::Slot slot = slots_.acquire(cancellation.token());
  if (!slot)
    throwAbandoned();
  const nanoseconds queuedTime = steady_clock::now() - queuedAt;
  record.queued = queuedTime;
  const ProcessResult result = run(task, scratch, cancellation.token());
  record.ran = result.wallTime;
  record.outcome = outcomeText(result);
  slot.release();  // a slow reader of the reply keeps nobody from running

  const TaskReply reply(task, scratch, files_, executionInfo(result, queuedTime));
  call.setReplySize(static_cast<long>(reply.nbytes()));
  reply.write(call.reply());
}

// With a word for what the task itself cannot say: that there was no room for what it wrote.
ProcessResult RunTaskMethod::run(const TaskDescription& task, const TaskScratch& scratch, const std::stop_token& stop) {
  const TaskDescriptors opened = scratch.open(task.standard_input());
  ProcessResult result = execution::runProcess(processSpec(task, opened), stop);
  if (const int error = execution::spaceError(opened.error.get()); error != 0) {
    const std::string reason = errors::systemErrorText(error);
    FOUNDATION_LOG(logger_, logging::kWarning)
        << "The scratch directory \"" << area_.path().string() << "\" is full: " << reason;
    addSentence(result.message,
                "The service's scratch directory is full (" + reason + "): what the task wrote may be cut short.");
  }
  return result;
}

ProcessSpec RunTaskMethod::processSpec(const TaskDescription& task, const TaskDescriptors& opened) const {
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
  spec.directory = opened.directory.get();
  spec.standardInput = opened.input.get();
  spec.standardOutput = opened.output.get();
  spec.standardError = opened.error.get();
  spec.limits = limitsOf(task.limits());
  spec.usualOpenFiles = settings_.openFiles;
  spec.killGrace = settings_.killGrace;
  return spec;
}

}  // namespace parallel::scheduler
