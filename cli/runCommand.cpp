#include <chrono>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "cli/CliError.h"
#include "cli/ProgressBar.h"
#include "cli/Session.h"
#include "cli/StandardStreams.h"
#include "cli/commands.h"
#include "cli/standardInput.h"
#include "cli/taskOutputs.h"
#include "scheduler/calls/durations.h"
#include "toolbox/TaskInputs.h"

namespace zks {
namespace {

using parallel::toolbox::TaskInputs;
using parallel::toolbox::TaskResult;
using parallel::zksmessages::TaskDescription;
using parallel::zksmessages::TaskLimits;
using parallel::zksmessages::TesselTaskExecutionInfo;

google::protobuf::Duration duration(double seconds) {
  using std::chrono::nanoseconds;
  return parallel::scheduler::toMessage(std::chrono::ceil<nanoseconds>(std::chrono::duration<double>(seconds)));
}

void setLimits(const TaskLimitOptions& options, TaskLimits& limits) {
  if (options.timeoutSeconds)
    *limits.mutable_wall_time() = duration(*options.timeoutSeconds);
  if (options.cpuSeconds)
    *limits.mutable_cpu_time() = duration(*options.cpuSeconds);
  if (options.memoryBytes)
    limits.set_memory_bytes(*options.memoryBytes);
  if (options.fileBytes)
    limits.set_file_bytes(*options.fileBytes);
  if (options.openFiles)
    limits.set_open_files(*options.openFiles);
}

TaskDescription describeTask(const RunOptions& options, const TaskInputs& inputs) {
  TaskDescription task;
  for (const std::string& word : options.command)
    task.add_argv(word);
  for (const auto& [name, value] : options.environment)
    (*task.mutable_environment())[name] = value;
  task.set_clear_environment(options.clearEnvironment);
  inputs.describe(task);
  for (const OutputArgument& output : options.outputs)
    task.add_output_files(output.name);
  task.set_return_folders(true);
  setLimits(options.limits, *task.mutable_limits());
  return task;
}

TaskInputs inputsOf(const RunOptions& options) {
  TaskInputs inputs;
  if (options.standardInput)
    inputs.setStandardInput(standardInputItem(*options.standardInput));
  for (const InputArgument& input : options.inputs)
    inputs.add(input.name, input.path);
  return inputs;
}

std::string_view viewOf(const tova::factory::qxArrayProxy& bytes) {
  return {static_cast<const char*>(qxGetData(bytes.get())), qxGetNumberOfElements(bytes.get())};
}

void sayMessage(const TesselTaskExecutionInfo& info) {
  if (!info.message().empty())
    say(info.message());
}

// How the task ended, told where its exit code alone does not.
int exitCodeOf(const TesselTaskExecutionInfo& info, const RunOptions& options) {
  switch (info.outcome()) {
    case TesselTaskExecutionInfo::OUTCOME_EXITED:
      sayMessage(info);
      return info.exit_status();
    case TesselTaskExecutionInfo::OUTCOME_SIGNALLED:
      say("the task was ended by signal " + std::to_string(info.signal()) + " (" + ::strsignal(info.signal()) + ")");
      sayMessage(info);
      return kSignalExit + info.signal();
    case TesselTaskExecutionInfo::OUTCOME_TIMED_OUT:
      say("the task's time was over, and it was ended");
      return kTimedOutExit;
    case TesselTaskExecutionInfo::OUTCOME_NOT_STARTED:
      say("the task could not be started: " + (info.message().empty() ? options.command.front() : info.message()));
      return kNotStartedExit;
    default:
      throw CliError("the service does not say how the task ended");
  }
}

// Returns why it cannot be said, if so: a reader who has gone is no reason to lose the outputs.
std::exception_ptr sayWhatItSaid(const TaskResult& result) {
  try {
    writeOutput(viewOf(result.standardOutput));
    writeErrorOutput(viewOf(result.standardError));
    return nullptr;
  } catch (const CliError&) {
    return std::current_exception();
  }
}

int exitCodeWithOutputs(int taskCode, const FetchedOutputs& outputs) {
  if (outputs.complete || taskCode != 0)
    return taskCode;
  std::string names;
  for (const std::string& name : outputs.notMade)
    names += (names.empty() ? "\"" : ", \"") + name + "\"";
  if (!names.empty())
    say("the task did not make " + names);
  return kRunFailureExit;
}

}  // namespace

int runCommand(const GlobalOptions& global, const RunOptions& options) {
  const TaskInputs inputs = inputsOf(options);
  checkOutputPlaces(options);  // before the task runs for nothing
  const Session session(global);
  std::optional<ProgressBar> bar;
  if (!options.standardInput || !isTyped(*options.standardInput))
    bar.emplace(session.progress());
  TaskResult result = session.client().runTask(describeTask(options, inputs), inputs.items());
  const std::exception_ptr unsaid = sayWhatItSaid(result);
  const FetchedOutputs outputs = fetchOutputs(result, options);
  if (unsaid != nullptr)
    std::rethrow_exception(unsaid);
  return exitCodeWithOutputs(exitCodeOf(result.info, options), outputs);
}

}  // namespace zks
