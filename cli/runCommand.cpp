#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "cli/CliError.h"
#include "cli/ProgressBar.h"
#include "cli/Session.h"
#include "cli/StandardStreams.h"
#include "cli/commands.h"
#include "toolbox/AtomicFile.h"

namespace zks {
namespace {

using parallel::toolbox::AtomicFile;
using parallel::toolbox::Item;
using parallel::toolbox::TaskResult;
using parallel::zksmessages::TaskDescription;
using parallel::zksmessages::TesselTaskExecutionInfo;

TaskDescription describeTask(const RunOptions& options) {
  TaskDescription task;
  for (const std::string& word : options.command)
    task.add_argv(word);
  for (const auto& [name, value] : options.environment)
    (*task.mutable_environment())[name] = value;
  for (const std::string& file : options.files)
    task.add_input_files(std::filesystem::path(file).filename().string());
  for (const std::string& name : options.outputs)
    task.add_output_files(name);
  if (options.seconds) {
    double whole = 0;
    const double fraction = std::modf(*options.seconds, &whole);
    task.mutable_limits()->mutable_wall_time()->set_seconds(static_cast<std::int64_t>(whole));
    task.mutable_limits()->mutable_wall_time()->set_nanos(static_cast<std::int32_t>(fraction * 1e9));
  }
  if (options.memoryBytes)
    task.mutable_limits()->set_memory_bytes(*options.memoryBytes);
  return task;
}

std::string_view viewOf(const tova::factory::qxArrayProxy& bytes) {
  return {static_cast<const char*>(qxGetData(bytes.get())), qxGetNumberOfElements(bytes.get())};
}

void say(const std::string& text) {
  writeError("zks: " + text + "\n");
}

// How the task ended, told where its exit code alone does not.
int exitCodeOf(const TesselTaskExecutionInfo& info, const RunOptions& options) {
  switch (info.outcome()) {
    case TesselTaskExecutionInfo::OUTCOME_EXITED:
      return info.exit_status();
    case TesselTaskExecutionInfo::OUTCOME_SIGNALLED:
      say("the task was ended by signal " + std::to_string(info.signal()) + " (" + ::strsignal(info.signal()) + ")");
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

bool isMissing(const TesselTaskExecutionInfo& info, const std::string& name) {
  const auto& missing = info.missing_outputs();
  return std::find(missing.begin(), missing.end(), name) != missing.end();
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

// Returns the names that the task did not make.
std::vector<std::string> fetchOutputs(TaskResult& result, const RunOptions& options) {
  std::vector<std::string> missing;
  for (const std::string& name : options.outputs) {
    if (isMissing(result.info, name)) {
      missing.push_back(name);
      result.outputs.takeFile("/dev/null");
    } else {
      AtomicFile file(options.directory + "/" + name);
      file.write([&](const std::string& path) { result.outputs.takeFile(path); });
      file.commit();
    }
  }
  return missing;
}

int exitCodeWithMissing(int taskCode, const std::vector<std::string>& missing) {
  if (missing.empty() || taskCode != 0)
    return taskCode;
  std::string names;
  for (const std::string& name : missing)
    names += (names.empty() ? "\"" : ", \"") + name + "\"";
  say("the task did not make " + names);
  return kRunFailureExit;
}

}  // namespace

int runCommand(const GlobalOptions& global, const RunOptions& options) {
  std::vector<Item> inputs;
  for (const std::string& file : options.files)
    inputs.push_back(parallel::toolbox::fileItem(file));
  for (const std::string& name : options.outputs)
    parallel::toolbox::checkWritablePlace(options.directory + "/" + name);  // before the task runs for nothing
  const Session session(global);
  const ProgressBar bar(session.progress());
  TaskResult result = session.client().runTask(describeTask(options), inputs);
  const std::exception_ptr unsaid = sayWhatItSaid(result);
  const std::vector<std::string> missing = fetchOutputs(result, options);
  if (unsaid != nullptr)
    std::rethrow_exception(unsaid);
  return exitCodeWithMissing(exitCodeOf(result.info, options), missing);
}

}  // namespace zks
