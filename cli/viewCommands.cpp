#include <google/protobuf/util/json_util.h>

#include <algorithm>
#include <limits>

#include "cli/CliError.h"
#include "cli/JobSession.h"
#include "cli/Json.h"
#include "cli/ProgressBar.h"
#include "cli/StandardStreams.h"
#include "cli/Table.h"
#include "cli/jobCommands.h"
#include "cli/jobNames.h"
#include "cli/jobTexts.h"

namespace zks {
namespace {

using parallel::zksmessages::DescribeJobReply;
using parallel::zksmessages::DescribeServiceReply;
using parallel::zksmessages::JobDescription;
using parallel::zksmessages::JobSummary;
using parallel::zksmessages::ListJobsRequest;
using parallel::zksmessages::ListTasksRequest;
using parallel::zksmessages::ListWorkersReply;
using parallel::zksmessages::TaskArray;
using parallel::zksmessages::TaskState;
using parallel::zksmessages::TaskSummary;

constexpr std::uint64_t kJobsInPage = 1000;
constexpr std::uint64_t kTasksInPage = 10'000;

JsonObject summaryJson(const JobSummary& job) {
  JsonObject json;
  json.add("job", job.job()).add("name", job.name()).add("state", jobStateText(job));
  json.add("submitted", utcTimeText(job.submitted()));
  json.add("ended", job.has_ended() ? std::optional(utcTimeText(job.ended())) : std::nullopt);
  json.add("priority", job.priority()).add("held", job.held()).add("open", job.open()).add("round", job.round());
  json.add("key", job.key()).addRaw("tasks", countsJson(job.counts()));
  return json;
}

std::vector<JobSummary> listJobs(JobSession& session, const JobsOptions& options) {
  const std::uint64_t wanted = options.limit == 0 ? std::numeric_limits<std::uint64_t>::max() : options.limit;
  std::vector<JobSummary> jobs;
  ListJobsRequest request;
  request.set_name(options.name);
  for (;;) {
    request.set_limit(static_cast<std::uint32_t>(std::min(wanted - jobs.size(), kJobsInPage)));
    const auto page = session.ask([&](const auto& client) { return client.listJobs(request); });
    jobs.insert(jobs.end(), page.jobs().begin(), page.jobs().end());
    if (page.next_before() == 0 || jobs.size() >= wanted)
      return jobs;
    request.set_before(page.next_before());
  }
}

// "195/200", and those that came to no good.
std::string doneText(const JobSummary& job) {
  return std::to_string(countEnded(job.counts())) + "/" + std::to_string(countAll(job.counts()));
}

std::string numberOrNothing(std::uint64_t number) {
  return number == 0 ? "" : std::to_string(number);
}

TaskState stateOf(const std::string& name) {
  for (int number = parallel::zksmessages::TASK_STATE_WAITING; number <= parallel::zksmessages::TASK_STATE_SKIPPED;
       ++number) {
    if (stateText(static_cast<TaskState>(number)) == name)
      return static_cast<TaskState>(number);
  }
  throw UsageError("there is no state \"" + name + "\"");
}

// Each page as it comes: a job may have a million tasks.
template <class Visit>
void visitTasks(JobSession& session, std::uint64_t job, const TasksOptions& options, Visit visit) {
  std::uint64_t left = options.limit == 0 ? std::numeric_limits<std::uint64_t>::max() : options.limit;
  ListTasksRequest request;
  request.set_job(job);
  for (const std::string& state : options.states)
    request.add_states(stateOf(state));
  for (;;) {
    request.set_limit(static_cast<std::uint32_t>(std::min(left, kTasksInPage)));
    const auto page = session.ask([&](const auto& client) { return client.listTasks(request); });
    visit(page.tasks());
    left -= std::min<std::uint64_t>(left, static_cast<std::uint64_t>(page.tasks_size()));
    if (!page.has_next_task() || left == 0)
      return;
    request.set_first_task(page.next_task());
  }
}

std::string taskJson(const TaskSummary& task) {
  JsonObject json;
  json.add("task", task.task()).add("index", task.index()).add("state", stateText(task.state()));
  json.add("attempt", task.attempt()).add("worker", task.worker());
  json.addRaw("ending",
              JsonObject().add("reason", reasonWord(task.ending().reason())).add("code", task.ending().code()).text());
  json.add("why_waiting", task.why_waiting());
  const bool ran = task.has_info();
  json.add("seconds", ran ? std::optional(secondsOf(task.info().wall_time())) : std::nullopt);
  json.add("cpu_seconds", ran ? std::optional(secondsOf(task.info().user_time()) + secondsOf(task.info().system_time()))
                              : std::nullopt);
  json.add("peak_memory_bytes", ran ? std::optional(task.info().peak_memory_bytes()) : std::nullopt);
  json.add("message", task.info().message()).add("error_end", task.error_end());
  return json.text();
}

void printTasksJson(JobSession& session, std::uint64_t job, const TasksOptions& options) {
  bool isFirst = true;
  visitTasks(session, job, options, [&](const auto& tasks) {
    std::string text;
    for (const TaskSummary& task : tasks) {
      text += (isFirst ? "[\n  " : ",\n  ") + taskJson(task);
      isFirst = false;
    }
    writeOutput(text);
  });
  writeOutput(isFirst ? "[]\n" : "\n]\n");
}

void printTasks(JobSession& session, std::uint64_t job, const TasksOptions& options) {
  visitTasks(session, job, options, [&](const auto& tasks) {
    Table table(
        {{"TASK", true}, {"INDEX", true}, {"STATE"}, {"ATTEMPT", true}, {"WORKER", true}, {"TIME", true}, {"NOTE"}});
    for (const TaskSummary& task : tasks)
      table.add({std::to_string(task.task()), std::to_string(task.index()), stateText(task.state()),
                 numberOrNothing(task.attempt()), numberOrNothing(task.worker()),
                 task.has_info() ? durationText(secondsOf(task.info().wall_time())) : "", taskNote(task)});
    writeOutput(table.text());
  });
}

std::string joined(const google::protobuf::RepeatedPtrField<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    const bool isPlain = !word.empty() && word.find_first_of(" \t\n'\"\\$&|;<>()*?`#~") == std::string::npos;
    text += (text.empty() ? "" : " ") + (isPlain ? word : "'" + word + "'");
  }
  return text;
}

void addArray(const TaskArray& array, std::uint64_t firstTask,
              std::vector<std::pair<std::string, std::string>>& pairs) {
  const std::uint64_t last = firstTask + std::max<std::uint64_t>(array.count(), 1) - 1;
  pairs.emplace_back(array.count() == 1 ? "Task " + std::to_string(firstTask)
                                        : "Tasks " + std::to_string(firstTask) + "-" + std::to_string(last),
                     joined(array.command().argv()));
  if (array.has_needs())
    pairs.emplace_back("  needs", resourcesText(array.needs()));
  if (array.command().limits().has_wall_time())
    pairs.emplace_back("  may run", durationText(secondsOf(array.command().limits().wall_time())));
  if (array.at_once() > 0)
    pairs.emplace_back("  at once", std::to_string(array.at_once()));
  if (!array.command().in_place_folder().empty())
    pairs.emplace_back("  in place", array.command().in_place_folder());
  for (const auto& input : array.command().inputs())
    pairs.emplace_back("  input", input.name() + " (" + bytesText(static_cast<double>(input.content().nbytes())) + ")");
  for (const std::string& output : array.command().outputs())
    pairs.emplace_back("  output", output);
  for (const auto& other : array.dependencies())
    pairs.emplace_back("  after", "job " + std::to_string(other.job()) +
                                      (other.kind() == parallel::zksmessages::Dependency::KIND_ONE_TASK
                                           ? ", task " + std::to_string(other.task())
                                           : ""));
}

void printJob(const DescribeJobReply& job) {
  const JobSummary& summary = job.summary();
  std::vector<std::pair<std::string, std::string>> pairs = {
      {"Job", std::to_string(summary.job())},
      {"Name", summary.name()},
      {"State", jobStateText(summary)},
      {"Tasks", countsText(summary.counts())},
      {"Submitted", localTimeText(summary.submitted())},
      {"Ended", summary.has_ended() ? localTimeText(summary.ended()) : ""},
      {"Priority", std::to_string(summary.priority())},
      {"Round", std::to_string(summary.round())},
      {"Key", summary.key()},
  };
  if (summary.open())
    pairs.emplace_back("Open", "more tasks may come");
  std::uint64_t firstTask = 0;
  for (const TaskArray& array : job.description().arrays()) {
    addArray(array, firstTask, pairs);
    firstTask += array.count();
  }
  writeOutput(labelled(pairs));
}

std::string descriptionJson(const JobDescription& description) {
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  std::string json;
  const auto status = google::protobuf::util::MessageToJsonString(description, &json, options);
  if (!status.ok())
    throw CliError("the job's description cannot be shown as JSON: " + std::string(status.message()));
  return json;
}

std::string workerState(const ListWorkersReply::Worker& worker) {
  if (worker.unreachable())
    return "unreachable";
  return worker.draining() ? "draining" : "ready";
}

std::string workerJson(const ListWorkersReply::Worker& worker) {
  JsonObject json;
  json.add("worker", worker.worker()).add("name", worker.name()).add("state", workerState(worker));
  json.addRaw("resources", resourcesJson(worker.resources()));
  json.add("attempts", worker.attempts()).add("seconds_since_heard", secondsOf(worker.since_heard()));
  return json.text();
}

std::string serviceJson(const DescribeServiceReply& service, const std::string& address) {
  JsonObject json;
  json.add("address", address).add("version", service.version()).add("host", service.host());
  json.add("process", service.process()).add("store", service.store()).add("started", utcTimeText(service.started()));
  json.add("jobs", service.jobs()).addRaw("tasks", countsJson(service.counts()));
  json.add("workers", service.workers()).add("room", service.room());
  return json.text() + "\n";
}

}  // namespace

int jobsCommand(const GlobalOptions& global, const JobsOptions& options) {
  JobSession session(global);
  const std::vector<JobSummary> jobs = listJobs(session, options);
  if (options.json) {
    std::vector<std::string> entries;
    entries.reserve(jobs.size());
    for (const JobSummary& job : jobs)
      entries.push_back(summaryJson(job).text());
    writeOutput(jsonList(entries));
    return 0;
  }
  Table table({{"JOB", true}, {"NAME"}, {"STATE"}, {"DONE", true}, {"FAILED", true}, {"SUBMITTED"}, {"ENDED"}});
  for (const JobSummary& job : jobs)
    table.add({std::to_string(job.job()), job.name(), jobStateText(job), doneText(job),
               std::to_string(job.counts().failed()), localTimeText(job.submitted()),
               job.has_ended() ? localTimeText(job.ended()) : ""});
  writeOutput(table.text());
  return 0;
}

int showCommand(const GlobalOptions& global, const ShowOptions& options) {
  JobSession session(global);
  const std::uint64_t number = jobNumber(session, options.job);
  const DescribeJobReply job = session.ask([&](const auto& client) { return client.describeJob(number); });
  if (options.json)
    writeOutput(summaryJson(job.summary()).addRaw("description", descriptionJson(job.description())).text() + "\n");
  else
    printJob(job);
  return 0;
}

int tasksCommand(const GlobalOptions& global, const TasksOptions& options) {
  JobSession session(global);
  const std::uint64_t number = jobNumber(session, options.job);
  if (options.json)
    printTasksJson(session, number, options);
  else
    printTasks(session, number, options);
  return 0;
}

int workersCommand(const GlobalOptions& global, const WorkersOptions& options) {
  JobSession session(global);
  const ListWorkersReply reply = session.ask([](const auto& client) { return client.listWorkers(); });
  if (options.json) {
    std::vector<std::string> entries;
    for (const auto& worker : reply.workers())
      entries.push_back(workerJson(worker));
    writeOutput(jsonList(entries));
    return 0;
  }
  Table table({{"WORKER", true}, {"NAME"}, {"STATE"}, {"RESOURCES"}, {"TASKS", true}, {"HEARD", true}});
  for (const auto& worker : reply.workers())
    table.add({std::to_string(worker.worker()), worker.name(), workerState(worker), resourcesText(worker.resources()),
               std::to_string(worker.attempts()), durationText(secondsOf(worker.since_heard())) + " ago"});
  writeOutput(table.text());
  return 0;
}

int statusCommand(const GlobalOptions& global, const StatusOptions& options) {
  JobSession session(global);
  const DescribeServiceReply service = session.ask([](const auto& client) { return client.describeService(); });
  if (options.json) {
    writeOutput(serviceJson(service, session.serviceName()));
    return 0;
  }
  writeOutput(labelled({{"Service", "zksd " + service.version() + " at " + session.serviceName()},
                        {"Runs on", service.host() + ", process " + std::to_string(service.process())},
                        {"Since", localTimeText(service.started())},
                        {"Store", service.store()},
                        {"Room", service.room()},
                        {"Jobs", std::to_string(service.jobs())},
                        {"Tasks", countsText(service.counts())},
                        {"Workers", std::to_string(service.workers())}}));
  return 0;
}

}  // namespace zks
