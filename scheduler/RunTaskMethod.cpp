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
#include "execution/listFolder.h"
#include "platform/errors/systemError.h"
#include "platform/errors/visibleText.h"
#include "platform/logging/sinks.h"
#include "platform/spf/core/errors.h"
#include "scheduler/calls/CallCancellation.h"
#include "scheduler/calls/ReplyWriter.h"
#include "scheduler/calls/RequestReader.h"
#include "scheduler/calls/checkTaskDescription.h"
#include "scheduler/calls/durations.h"

namespace parallel::scheduler {

using agent::spf::core::ServerCall;
using errors::inQuotes;
using execution::FilePool;
using execution::fileStatus;
using execution::FolderContents;
using execution::listFolder;
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

// Which inputs and outputs are programs.
class Programs {
 public:
  explicit Programs(const TaskDescription& task)
      : inputs_(task.input_files().begin(), task.input_files().end()),
        programs_(task.executable_inputs().begin(), task.executable_inputs().end()) {}

  // An input in a folder may be run if it could be where it came from, any other one whatever it was.
  mode_t permissions(std::string_view input) const {
    return isInFolder(input) && !programs_.contains(input) ? S_IRUSR | S_IWUSR : S_IRWXU;
  }

  // An input of which the task left the permissions alone is what it was where it came from.
  bool isProgram(std::string_view output, mode_t mode) const {
    if ((mode & S_IXUSR) == 0)
      return false;
    const bool asItCame = inputs_.contains(output) && (mode & kPermissions) == permissions(output);
    return !asItCame || programs_.contains(output);
  }

 private:
  static constexpr mode_t kPermissions = S_IRWXU | S_IRWXG | S_IRWXO;

  static bool isInFolder(std::string_view path) { return path.find('/') != std::string_view::npos; }

  const std::set<std::string_view> inputs_;
  const std::set<std::string_view> programs_;
};

void receiveInto(const std::filesystem::path& path, std::string what, RequestReader& request, FilePool& files) {
  FilePool::File file(files, path, O_WRONLY | O_APPEND, std::move(what));
  execution::FileSink sink(file);
  request.readItem(sink);
}

void receiveInputs(RequestReader& request, const TaskDescription& task, const TaskScratch& scratch, FilePool& files) {
  const Programs programs(task);
  if (task.standard_input())
    receiveInto(scratch.createStandardInput(), "the standard input", request, files);
  for (const std::string& name : task.input_folders())
    scratch.createFolder(name);
  for (const std::string& name : task.input_files())
    receiveInto(scratch.createInput(name, programs.permissions(name)), "the input file " + inQuotes(name), request,
                files);
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

// What the task left behind, as the reply will hold it. Looks at everything before the first byte of the reply is
// written, and tells the sizes beforehand; what cannot be returned is empty, and said.
class TaskReply {
 public:
  TaskReply(const TaskDescription& task, const TaskScratch& scratch, FilePool& files, std::size_t mostFolderEntries,
            TesselTaskExecutionInfo info)
      : pool_(files),
        scratch_(scratch),
        mostFolderEntries_(mostFolderEntries),
        programs_(task),
        info_(std::move(info)) {
    addCapture(scratch.standardOutput(), "the standard output");
    addCapture(scratch.standardError(), "the standard error");
    std::vector<std::string> inFolders;
    for (const std::string& name : task.output_files()) {
      const OutputStatus status = fileStatus(scratch.output(name));
      if (task.return_folders() && S_ISDIR(status.mode))
        addFolder(name, inFolders);
      else
        addOutput(name, status);
    }
    for (const std::string& path : inFolders)
      addFolderFile(path);
    result_ = resultPayload(info_);
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

  void addCapture(std::filesystem::path path, std::string what) {
    const OutputStatus status = fileStatus(path);
    if (!status.isThere) {
      const std::string problem = status.problem.empty() ? "its file is gone" : status.problem;
      addSentence(*info_.mutable_message(), "What it wrote to " + what + " is lost: " + problem + ".");
    }
    add({std::move(path), std::move(what), status.nbytes}, ReplyWriter::framedPlainBytes(status.nbytes));
  }

  void addOutput(const std::string& name, const OutputStatus& status) {
    const bool usable = tell(name, status);
    addFile(name, usable ? status.nbytes : 0);
  }

  // A folder has an empty item in its place. Its files come after all outputs.
  void addFolder(const std::string& name, std::vector<std::string>& inFolders) {
    const std::size_t most = mostFolderEntries_ - folderEntries_;
    const FolderContents contents = listFolder(scratch_.workDirectory(), name, most);
    addFile(name, 0);
    if (contents.entries() > most)
      return tellMissing(name, "a task's folders can be returned with " + std::to_string(mostFolderEntries_) +
                                   " files at most, and it has more");
    folderEntries_ += contents.entries();
    info_.mutable_output_folders()->Add(contents.folders.begin(), contents.folders.end());
    inFolders.insert(inFolders.end(), contents.files.begin(), contents.files.end());
    for (const auto& [path, problem] : contents.unusable)
      tellMissing(path, problem);
  }

  void addFolderFile(const std::string& path) {
    const OutputStatus status = fileStatus(scratch_.output(path));
    if (!tell(path, status))
      return;
    info_.add_folder_files(path);
    addFile(path, status.nbytes);
  }

  // Says in the result what there is to say of a file. False when it cannot be returned.
  bool tell(const std::string& name, const OutputStatus& status) {
    const bool fits = status.nbytes <= kMostBytes - dataBytes_ && framedBytes(status.nbytes) <= kMostBytes - dataBytes_;
    if (!status.isThere)
      tellMissing(name, status.problem);
    else if (!fits)
      tellMissing(name, "no reply can hold its " + std::to_string(status.nbytes) + " bytes");
    else if (programs_.isProgram(name, status.mode))
      info_.add_executable_outputs(name);
    return status.isThere && fits;
  }

  // Without a problem the task has not made it.
  void tellMissing(const std::string& name, const std::string& problem) {
    info_.add_missing_outputs(name);
    if (!problem.empty())
      (*info_.mutable_unusable_outputs())[name] = problem;
  }

  void addFile(const std::string& name, std::uint64_t nbytes) {
    add({scratch_.output(name), "the output file " + inQuotes(name), nbytes}, framedBytes(nbytes));
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
  const TaskScratch& scratch_;
  const std::size_t mostFolderEntries_;
  const Programs programs_;
  TesselTaskExecutionInfo info_;
  std::size_t folderEntries_ = 0;
  std::vector<File> files_;  // standard output and error, the outputs, the files of folders
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
  request.readMessage(task, settings_.descriptionLimit);
  checkTaskDescription(task);
  record.program = task.argv(0);
  request.expectItems(requestItems(task));

  const TaskScratch scratch(area_);
  receiveInputs(request, task, scratch, files_);

  const auto queuedAt = steady_clock::now();
  TaskSlots::Slot slot = awaitTurn(call, cancellation.token());
  const nanoseconds queuedTime = steady_clock::now() - queuedAt;
  record.queued = queuedTime;
  call.notify("running");
  const ProcessResult result = run(task, scratch, cancellation.token());
  record.ran = result.wallTime;
  record.outcome = outcomeText(result);
  slot.release();  // a slow reader of the reply keeps nobody from running

  const TaskReply reply(task, scratch, files_, settings_.mostFolderEntries, executionInfo(result, queuedTime));
  call.setReplySize(static_cast<long>(reply.nbytes()));
  reply.write(call.reply());
}

TaskSlots::Slot RunTaskMethod::awaitTurn(ServerCall& call, const std::stop_token& stop) {
  TaskSlots::Slot slot = slots_.tryAcquire();
  if (!slot) {
    call.notify("queued");
    slot = slots_.acquire(stop);
  }
  if (!slot || stop.stop_requested())
    throwAbandoned();
  return slot;
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
