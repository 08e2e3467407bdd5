#include <optional>

#include "cli/CliError.h"
#include "cli/JobSession.h"
#include "cli/ProgressBar.h"
#include "cli/StandardStreams.h"
#include "cli/commands.h"
#include "cli/jobCommands.h"
#include "cli/jobDescription.h"
#include "cli/jobNames.h"
#include "cli/jobOutputs.h"
#include "cli/jobTexts.h"
#include "cli/jobWaiting.h"
#include "cli/randomKey.h"
#include "platform/interrupt/utInterruptState.h"
#include "toolbox/BlobClient.h"
#include "toolbox/folders.h"

namespace zks {
namespace {

using parallel::toolbox::BlobClient;
using parallel::toolbox::Connection;
using parallel::toolbox::ErrorForm;
using parallel::toolbox::JobClient;
using parallel::toolbox::SchedulerClient;
using parallel::zksmessages::BlobHolder;
using parallel::zksmessages::Dependency;
using parallel::zksmessages::Ending;
using parallel::zksmessages::JobSummary;
using parallel::zksmessages::ListTasksRequest;
using parallel::zksmessages::OutputFile;
using parallel::zksmessages::SubmitJobReply;
using parallel::zksmessages::SubmitJobRequest;

std::vector<Dependency> dependenciesOf(JobSession& session, const SubmitOptions& options) {
  std::vector<Dependency> dependencies;
  for (const AfterArgument& after : options.after) {
    Dependency& other = dependencies.emplace_back();
    other.set_kind(after.task ? Dependency::KIND_ONE_TASK : Dependency::KIND_WHOLE_JOB);
    other.set_job(jobNumber(session, after.job));
    other.set_task(after.task.value_or(0));
  }
  for (const std::string& job : options.afterSameIndex) {
    Dependency& other = dependencies.emplace_back();
    other.set_kind(Dependency::KIND_SAME_INDEX);
    other.set_job(jobNumber(session, job));
  }
  return dependencies;
}

// Nothing is submitted as long as blobs are missing. A blob may go between question and use, though hardly twice.
SubmitJobReply submitWithBlobs(const Connection& connection, JobSession& session, const SubmitJobRequest& request,
                               const DescribedJob& described) {
  constexpr int kTries = 3;
  BlobHolder holder;
  holder.set_key(request.key());
  const SchedulerClient calls(connection, session.progress(), ErrorForm::Chain);
  const JobClient jobs(connection, session.progress(), ErrorForm::Chain);
  for (int i = 0; i < kTries; ++i) {
    if (!described.blobs.empty())
      BlobClient(calls).putMissing(holder, described.blobs);
    SubmitJobReply reply = jobs.submitJob(request);
    if (reply.job() > 0)
      return reply;
  }
  throw CliError("the service says again and again that it lacks the job's files");
}

SubmitJobReply submit(JobSession& session, const SubmitOptions& options) {
  const DescribedJob described = describeJob(options, dependenciesOf(session, options));
  SubmitJobRequest request;
  request.set_key(options.key.empty() ? randomKey() : options.key);
  *request.mutable_job() = described.job;
  const ProgressBar bar(session.progress());
  return session.call(
      [&](const Connection& connection) { return submitWithBlobs(connection, session, request, described); });
}

void tellOf(const SubmitJobReply& reply, JobSession& session, const SubmitOptions& options) {
  const std::string number = std::to_string(reply.job());
  if (options.quiet)
    return writeOutput(number + "\n");
  const JobSummary job = lookAtJob(session, reply.job());
  const std::uint64_t count = countAll(job.counts());
  const std::string text = "Job " + number + " (" + job.name() + ")" +
                           (reply.is_repeat() ? " was submitted before: " : ": ") + std::to_string(count) +
                           (count == 1 ? " task" : " tasks");
  if (options.follow)
    say(text);
  else
    writeOutput(text + "; \"zks wait " + number + "\" waits for " + (count == 1 ? "it" : "them") + ", \"zks fetch " +
                number + "\" brings the outputs\n");
}

// Both streams of an attempt, as they come, until it has ended.
void followAttempt(JobSession& session, std::uint64_t job, std::uint64_t attempt) {
  constexpr std::chrono::milliseconds kTurn{200};
  OutputReader output(job, 0, attempt, OutputFile::STREAM_STANDARD_OUTPUT);
  OutputReader error(job, 0, attempt, OutputFile::STREAM_STANDARD_ERROR);
  while (!output.hasEnded() || !error.hasEnded()) {
    if (!output.hasEnded())
      output.read(session, error.hasEnded() ? kLongestRead : kTurn);
    if (!error.hasEnded())
      error.read(session, output.hasEnded() ? kLongestRead : kTurn);
  }
}

// Attempt by attempt.
void followTask(JobSession& session, std::uint64_t job) {
  for (std::uint64_t followed = 0;;) {
    const std::uint64_t attempt = nextAttempt(session, job, followed);
    if (attempt == followed)
      return;
    followAttempt(session, job, attempt);
    followed = attempt;
  }
}

// As "zks run" has it.
int exitCodeOf(JobSession& session, std::uint64_t job) {
  ListTasksRequest request;
  request.set_job(job);
  request.set_limit(1);
  const auto task = session.ask([&](const JobClient& client) { return client.listTasks(request); }).tasks(0);
  if (task.state() == parallel::zksmessages::TASK_STATE_SUCCEEDED)
    return 0;
  const bool saysItself = task.ending().reason() == Ending::REASON_EXIT_CODE;
  if (!saysItself)
    say("the task " + stateText(task.state()) + ": " + taskNote(task));
  switch (task.ending().reason()) {
    case Ending::REASON_EXIT_CODE:
      return task.ending().code();
    case Ending::REASON_SIGNAL:
      return kSignalExit + task.ending().code();
    case Ending::REASON_TIME_LIMIT:
      return kTimedOutExit;
    case Ending::REASON_NOT_STARTED:
      return kNotStartedExit;
    default:
      return kRunFailureExit;
  }
}

int follow(JobSession& session, std::uint64_t number, const SubmitOptions& options) {
  const bool isSingle = countAll(lookAtJob(session, number).counts()) == 1;
  if (isSingle)
    followTask(session, number);
  const JobSummary job = waitForEnd(session, number);
  if (!isSingle)
    tellHowItEnded(session, job);
  FetchOptions fetch;
  fetch.directory = options.fetchDirectory;
  fetch.force = true;
  parallel::toolbox::makeFolder(fetch.directory);
  const auto fetched =
      OutputFetcher(session, fetch, job, isSingle ? OutputFetcher::Streams::LeftOut : OutputFetcher::Streams::AsFiles)
          .run();
  const int code = isSingle ? exitCodeOf(session, number) : allSucceeded(job) ? 0 : 1;
  return code == 0 && fetched.withoutOutputs > 0 ? kRunFailureExit : code;
}

}  // namespace

int submitCommand(const GlobalOptions& global, const SubmitOptions& options) {
  JobSession session(global);
  const SubmitJobReply reply = submit(session, options);
  tellOf(reply, session, options);
  if (!options.follow)
    return 0;
  try {
    return follow(session, reply.job(), options);
  } catch (const Corvane::System::InterruptException&) {
    sayThatItGoesOn(reply.job());
    throw;
  }
}

}  // namespace zks
