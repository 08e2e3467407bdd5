#include "cli/jobWaiting.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "cli/StandardStreams.h"
#include "cli/jobTexts.h"
#include "platform/interrupt/throwIfInterrupted.h"

namespace zks {
namespace {

using parallel::toolbox::JobClient;
using parallel::zksmessages::JobSummary;
using parallel::zksmessages::ListTasksRequest;
using parallel::zksmessages::WaitForChangeRequest;
using Clock = std::chrono::steady_clock;

constexpr std::int64_t kLongestWait = 30;  // seconds; the service answers at once when there is something to tell
// A busy job changes faster than anybody reads.
constexpr std::chrono::milliseconds kLeastPause{100};
constexpr std::uint32_t kFailuresTold = 3;

JobSummary nextView(JobSession& session, std::uint64_t job, std::uint64_t version, std::int64_t seconds) {
  WaitForChangeRequest request;
  request.set_job(job);
  request.set_version(version);
  request.mutable_wait()->set_seconds(seconds);
  return session.ask([&](const JobClient& client) { return client.waitForChange(request); }).summary();
}

void show(const JobSummary& now, std::uint64_t endedBefore, Clock::duration since) {
  if (!isStatusLineVisible())
    return;
  const std::uint64_t ended = countEnded(now.counts());
  showStatusLine(waitText("job " + std::to_string(now.job()), now.counts(), ended - std::min(endedBefore, ended),
                          std::chrono::duration<double>(since).count(), statusLineColumns()));
}

}  // namespace

JobSummary lookAtJob(JobSession& session, std::uint64_t job) {
  return nextView(session, job, 0, 0);
}

JobSummary waitForEnd(JobSession& session, std::uint64_t job) {
  const Clock::time_point start = Clock::now();
  JobSummary view = lookAtJob(session, job);
  const std::uint64_t endedBefore = countEnded(view.counts());
  while (!view.has_ended()) {
    const Clock::time_point asked = Clock::now();
    show(view, endedBefore, asked - start);
    view = nextView(session, job, view.version(), kLongestWait);
    throwIfInterrupted();
    std::this_thread::sleep_until(asked + kLeastPause);
  }
  clearStatusLine();
  return view;
}

void sayThatItGoesOn(std::uint64_t job) noexcept try {
  const std::string number = std::to_string(job);
  say("job " + number + " goes on; \"zks wait " + number + "\" comes back to it, \"zks cancel " + number +
      "\" ends it");
} catch (const std::exception&) {
  say("the job goes on");
}

void tellHowItEnded(JobSession& session, const JobSummary& job) {
  std::string text = jobText(job);
  text.front() = 'J';
  writeOutput(text + " " + jobStateText(job) + ": " + countsText(job.counts()) + "\n");
  if (job.counts().failed() == 0)
    return;
  ListTasksRequest request;
  request.set_job(job.job());
  request.add_states(parallel::zksmessages::TASK_STATE_FAILED);
  request.set_limit(kFailuresTold);
  const auto failed = session.ask([&](const JobClient& client) { return client.listTasks(request); });
  for (const auto& task : failed.tasks())
    say("task " + std::to_string(task.task()) + ": " + taskNote(task));
  if (job.counts().failed() > kFailuresTold)
    say("and " + std::to_string(job.counts().failed() - kFailuresTold) + " more; \"zks tasks " +
        std::to_string(job.job()) + " --state failed\" lists them");
}

}  // namespace zks
