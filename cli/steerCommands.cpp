#include <chrono>

#include "cli/JobSession.h"
#include "cli/StandardStreams.h"
#include "cli/jobCommands.h"
#include "cli/jobNames.h"
#include "cli/randomKey.h"

namespace zks {
namespace {

using parallel::toolbox::JobClient;
using parallel::zksmessages::CancelReply;
using parallel::zksmessages::CancelRequest;
using parallel::zksmessages::RetryRequest;

void addSpans(const std::vector<TaskRange>& ranges,
              google::protobuf::RepeatedPtrField<parallel::zksmessages::TaskSpan>& spans) {
  for (const TaskRange& range : ranges) {
    auto* span = spans.Add();
    span->set_first(range.first);
    span->set_last(range.last);
  }
}

std::string tasksText(std::uint64_t count) {
  return std::to_string(count) + (count == 1 ? " task" : " tasks");
}

std::string cancelledText(const CancelReply& reply) {
  std::string text = tasksText(reply.stopped()) + " stopped";
  if (reply.already_ended() > 0)
    text += ", " + std::to_string(reply.already_ended()) + " had ended";
  for (const auto& running : reply.running())
    text += ", task " + std::to_string(running.attempt().task()) + " may run until worker " +
            std::to_string(running.worker()) + " is heard of";
  return text;
}

std::string cancelJob(JobSession& session, std::uint64_t job, const SteerOptions& options) {
  CancelRequest request;
  request.set_job(job);
  addSpans(options.tasks, *request.mutable_tasks());
  return "cancelled: " + cancelledText(session.ask([&](const JobClient& client) { return client.cancel(request); }));
}

std::string retryJob(JobSession& session, std::uint64_t job, const SteerOptions& options) {
  RetryRequest request;
  request.set_job(job);
  request.set_key(randomKey());
  addSpans(options.tasks, *request.mutable_tasks());
  const auto reply = session.ask([&](const JobClient& client) { return client.retry(request); });
  return "round " + std::to_string(reply.round()) + " has begun";
}

std::string steer(JobSession& session, std::uint64_t job, const SteerOptions& options) {
  switch (options.action) {
    case SteerOptions::Action::Cancel:
      return cancelJob(session, job, options);
    case SteerOptions::Action::Hold:
      session.ask([&](const JobClient& client) { return client.hold(job); });
      return "held; \"zks release " + std::to_string(job) + "\" lets it go on";
    case SteerOptions::Action::Release:
      session.ask([&](const JobClient& client) { return client.release(job); });
      return "released";
    case SteerOptions::Action::Retry:
      return retryJob(session, job, options);
    case SteerOptions::Action::Delete:
      session.ask([&](const JobClient& client) {
        client.deleteJob(job);
        return true;
      });
      return "deleted";
  }
  return "";
}

}  // namespace

int steerCommand(const GlobalOptions& global, const SteerOptions& options) {
  JobSession session(global);
  for (const std::string& name : options.jobs) {
    const std::uint64_t job = jobNumber(session, name);
    writeOutput("Job " + std::to_string(job) + " " + steer(session, job, options) + "\n");
  }
  return 0;
}

int pruneCommand(const GlobalOptions& global, const PruneOptions& options) {
  using std::chrono::milliseconds;
  const auto age = std::chrono::ceil<milliseconds>(std::chrono::duration<double>(options.olderThanSeconds));
  const auto now = std::chrono::time_point_cast<milliseconds>(std::chrono::system_clock::now());
  parallel::zksmessages::PruneRequest request;
  request.set_ended_before((now - age).time_since_epoch().count());
  JobSession session(global);
  const auto reply = session.ask([&](const JobClient& client) { return client.prune(request); });
  writeOutput(std::to_string(reply.jobs_size()) + (reply.jobs_size() == 1 ? " job" : " jobs") + " deleted\n");
  return 0;
}

int drainCommand(const GlobalOptions& global, const DrainOptions& options) {
  JobSession session(global);
  const auto reply = session.ask([&](const JobClient& client) { return client.drainWorker(options.worker); });
  writeOutput("Worker " + std::to_string(options.worker) + " gets nothing new and still has " +
              tasksText(reply.attempts()) + "\n");
  return 0;
}

}  // namespace zks
