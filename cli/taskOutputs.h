// The outputs of a task on their way to the user's directory.
#pragma once

#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "toolbox/SchedulerClient.h"

namespace zks {

// What keeps one from being written there, as far as it can be told before the task runs. CliError, `CannotWriteFile`,
// `CannotWriteIntoDirectory`.
void checkOutputPlaces(const RunOptions& options);

struct FetchedOutputs {
  bool complete = true;
  std::vector<std::string> notMade;  // by the task
};

// Takes them from the result, and says why others cannot be fetched.
FetchedOutputs fetchOutputs(parallel::toolbox::TaskResult& result, const RunOptions& options);

}  // namespace zks
