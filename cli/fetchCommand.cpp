#include "cli/JobSession.h"
#include "cli/ProgressBar.h"
#include "cli/StandardStreams.h"
#include "cli/jobCommands.h"
#include "cli/jobNames.h"
#include "cli/jobOutputs.h"
#include "cli/jobTexts.h"
#include "cli/jobWaiting.h"
#include "toolbox/folders.h"

namespace zks {
namespace {

// That nothing was left out: the exit code is to say so.
bool isComplete(const OutputFetcher::Result& fetched, const parallel::zksmessages::JobSummary& job) {
  const std::uint64_t unfinished = countAll(job.counts()) - countEnded(job.counts());
  if (unfinished > 0)
    say(std::to_string(unfinished) + (unfinished == 1 ? " task has" : " tasks have") + " not ended; fetch again for " +
        (unfinished == 1 ? "its" : "their") + " outputs");
  return unfinished == 0 && fetched.differing == 0 && fetched.withoutOutputs == 0;
}

}  // namespace

int fetchCommand(const GlobalOptions& global, const FetchOptions& options) {
  JobSession session(global);
  const std::uint64_t number = jobNumber(session, options.job);
  const auto job = lookAtJob(session, number);
  parallel::toolbox::makeFolder(options.directory);
  const ProgressBar bar(session.progress());
  const auto fetched = OutputFetcher(session, options, job,
                                     options.print ? OutputFetcher::Streams::Printed : OutputFetcher::Streams::AsFiles)
                           .run();
  if (!options.print)
    writeOutput("Job " + std::to_string(number) + ": " + std::to_string(fetched.files) +
                (fetched.files == 1 ? " file" : " files") + " of " + std::to_string(fetched.tasks) +
                (fetched.tasks == 1 ? " task" : " tasks") + " fetched, " + std::to_string(fetched.same) +
                " were there already\n");
  return isComplete(fetched, job) ? 0 : 1;
}

}  // namespace zks
