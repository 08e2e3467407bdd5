#include "cli/CliError.h"
#include "cli/JobSession.h"
#include "cli/StandardStreams.h"
#include "cli/jobCommands.h"
#include "cli/jobNames.h"
#include "cli/jobOutputs.h"
#include "cli/jobTexts.h"
#include "cli/jobWaiting.h"

namespace zks {

int logsCommand(const GlobalOptions& global, const LogsOptions& options) {
  using parallel::zksmessages::OutputFile;
  JobSession session(global);
  const std::uint64_t job = jobNumber(session, options.job);
  const std::uint64_t count = countAll(lookAtJob(session, job).counts());
  if (!options.task && count != 1)
    throw UsageError("job " + std::to_string(job) + " has " + std::to_string(count) +
                     " tasks; say which one, as in: zks logs " + std::to_string(job) + " 0");
  const std::uint64_t task = options.task.value_or(0);
  const std::uint64_t attempt =
      options.attempt > 0 ? options.attempt : beganAttempt(session, job, task, options.follow);
  OutputReader reader(job, task, attempt,
                      options.standardError ? OutputFile::STREAM_STANDARD_ERROR : OutputFile::STREAM_STANDARD_OUTPUT);
  while (reader.read(session, options.follow ? kLongestRead : std::chrono::milliseconds(0)) || options.follow) {
    if (reader.hasEnded())
      break;
  }
  return 0;
}

}  // namespace zks
