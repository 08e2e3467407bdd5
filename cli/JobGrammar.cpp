#include "cli/JobGrammar.h"

#include <functional>
#include <limits>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "cli/CliError.h"
#include "cli/jobArguments.h"
#include "cli/optionHelpers.h"
#include "platform/errors/ustring.h"

namespace zks {
namespace {

using programs::notEmpty;
using programs::sizeInBytes;
using programs::wholeNumber;

constexpr std::uint64_t kMostNumber = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kMostCores = 1'000'000;
constexpr std::uint64_t kMostRetries = 1'000'000;

constexpr const char* kJobNames = R"(
JOB is a job's number, its name (the newest job of that name), or "last" for the newest job of all.
)";

constexpr const char* kSubmitFooter = R"(
In the command, --env NAME=VALUE, --output and the NAME of --input, "{index}" and "{line}" stand for those of the task, and
"{{" for a brace. The task also has them as $ZKS_INDEX and $ZKS_LINE. A script's lines "# zks: OPTIONS", before its first
command, are options too; those of the command line come after them and win.
Without --env-all a task has of this environment PATH, HOME, USER, LOGNAME, SHELL, LANG, LANGUAGE, LC_* and TZ.
Exit code: 0 when the job is submitted. With --follow that of the task, as "zks run" has it; of several tasks 0 when all
succeeded and 1 when not.
Examples:
  zks submit --name sort --input data.csv --output sorted.csv -- sh -c 'sort data.csv > sorted.csv'
  zks submit --array 0-99 --output 'result-{index}.npy' -- python3 fit.py {index}
  zks submit --lines hosts.txt --time 10m --retries 3 -- ./probe {line}
)";

constexpr const char* kWaitFooter = R"(
JOB is a job's number, its name (the newest job of that name), or "last" for the newest job of all.
Exit code: 0 when all tasks succeeded, 1 when not. Ctrl-C ends the wait and not the job.
)";

constexpr const char* kFetchFooter = R"(
The outputs of each task go into DIR/TASK, those of a job of one task right into DIR; standard output and error are the
files "stdout" and "stderr" there. A file that is there already and is the same is left as it is, so a fetch that was cut off
goes on when it is repeated; one that differs is named and kept, unless --force is given.
)";

SteerOptions::Action actionOf(const std::string& name) {
  using Action = SteerOptions::Action;
  if (name == "cancel")
    return Action::Cancel;
  if (name == "hold")
    return Action::Hold;
  if (name == "release")
    return Action::Release;
  return name == "retry" ? Action::Retry : Action::Delete;
}

void requireUtf8(const std::string& text, const std::string& what) {
  if (!fl::i18n::isWellFormed(text))
    throw UsageError(what + " \"" + text + "\" is not UTF-8, as all that a task is told has to be");
}

std::vector<TaskRange> rangesOf(const std::vector<std::string>& texts) {
  std::vector<TaskRange> ranges;
  ranges.reserve(texts.size());
  for (const std::string& text : texts)
    ranges.push_back(parseTaskRange(text));
  return ranges;
}

}  // namespace

// Values of several words as they stand on the line; result() takes them apart.
struct JobGrammar::Commands {
  explicit Commands(CLI::App& program) : app(program) {
    addSubmit();
    addViews();
    addLogs();
    addWait();
    addFetch();
    for (const auto& [name, help] : {std::pair("cancel", "End jobs, or some tasks of one"),
                                     std::pair("hold", "Start nothing more of jobs until they are released"),
                                     std::pair("release", "Go on with jobs that were held"),
                                     std::pair("retry", "Try again what failed or was cancelled of jobs"),
                                     std::pair("delete", "Remove jobs that have ended, with their outputs")})
      addSteering(name, help);
    addPrune();
    addWorkers();
    addService();
  }

  CLI::App* command(const char* name, const char* help, const std::string& footer = "") {
    CLI::App* added = app.add_subcommand(name, help);
    added->fallthrough();
    added->footer(footer);
    return added;
  }

  static void addJob(CLI::App& command, std::string& job) {
    command.add_option("JOB", job, "The job")->required()->check(asValidator(notEmpty()));
  }

  static void addJson(CLI::App& command, bool& json) { command.add_flag("--json", json, "As JSON, for programs"); }

  CLI::Option* addText(const char* name, std::string& target, const char* type, const char* help) const {
    return submitCommand->add_option(name, target, help)
        ->type_name(type)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  }

  template <class Number>
  CLI::Option* addNumber(const char* name, Number& target, std::uint64_t least, std::uint64_t most,
                         const char* help) const {
    return submitCommand->add_option(name, target, help)
        ->type_name("N")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
        ->check(asValidator(wholeNumber(least, most)));
  }

  void addSubmit() {
    submitCommand = command("submit", "Submit a job, which the service keeps: zks submit [OPTIONS] -- PROGRAM ARG...",
                            kSubmitFooter);
    submitCommand->add_option("SCRIPT", submit.script, "A script to run, in place of a command after --")
        ->check(asValidator(notEmpty()));
    addText("--name", submit.name, "NAME", "What the job is called (default: the program)")
        ->check(asValidator(notEmpty()));
    addTasks();
    addFiles();
    addNeeds();
    addConduct();
  }

  void addTasks() {
    addText("--array", array, "FIRST-LAST[:STEP][%AT_ONCE]", "A task for each index");
    addText("--lines", lines, "FILE", "A task for each line of the file; -: of standard input");
    addText("--json-list", jsonList, "FILE", "A task for each text in the file's JSON list");
    addNumber("--at-once", submit.atOnce, 1, kMostNumber, "So many of its tasks may run at once");
  }

  void addFiles() {
    addRepeated(*submitCommand, "--input", inputs, "FILE[=NAME]", "A file or folder to send along");
    addRepeated(*submitCommand, "--output", submit.outputs, "NAME",
                "A file that each task makes, or a pattern with * and ?");
    addText("--stdin", standardInput, "FILE", "The file that each task reads as its standard input; -: that of zks");
    addText("--in-place", inPlace, "DIR", "Run in this folder, which the workers share, and leave the outputs there");
    addRepeated(*submitCommand, "--env", submit.environment, "NAME[=VALUE]",
                "A variable for the tasks; without a value: with the one that it has here");
    submitCommand->add_flag("--env-all", submit.wholeEnvironment, "All variables of this environment for the tasks");
  }

  void addNeeds() {
    addNumber("--cores", submit.cores, 1, kMostCores, "Cores for each task (default: 1)");
    submitCommand->add_option("--memory", submit.memoryBytes, "Memory for each task, as 512M, 2G")
        ->type_name("BYTES")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
        ->transform(asValidator(sizeInBytes(1)));
    addRepeated(*submitCommand, "--resource", resources, "NAME=N",
                "Of another resource that workers have, for each task");
    addText("--time", time, "TIME", "How long each task may run: 90, 15m, 1h30m, 2d");
  }

  void addConduct() {
    addNumber("--retries", retryLimit, 0, kMostRetries, "How often a task that ended badly is tried again");
    addText("--retry-on", retryReasons, "LIST",
            "After which ends: exit, exit:CODE, signal, memory, time, lost (default: exit,signal)");
    addText("--retry-delay", retryDelay, "TIME", "How long before the first retry; doubles with each");
    submitCommand->add_option("--priority", submit.priority, "The greater goes first (default: 0)")
        ->type_name("N")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    submitCommand->add_flag("--hold", submit.held, "Start nothing before \"zks release\"");
    addRepeated(*submitCommand, "--after", after, "JOB[:TASK]",
                "Start when that job, or that task of it, has succeeded");
    addRepeated(*submitCommand, "--after-same-index", submit.afterSameIndex, "JOB",
                "Start each task when the task of that job with its number has succeeded");
    submitCommand->add_flag("--open", submit.open, "More tasks may come");
    addText("--key", submit.key, "KEY", "The same key again gives the same job (default: a new one)");
    submitCommand->add_flag("--follow", submit.follow, "Show the output as it comes, wait, and fetch the outputs");
    addText("--to", submit.fetchDirectory, "DIR", "Where --follow puts outputs (default: .)")
        ->check(asValidator(notEmpty()));
    submitCommand->add_flag("--quiet", submit.quiet, "Print the job's number alone");
  }

  void addViews() {
    jobsCommand = command("jobs", "List jobs, the newest first");
    jobsCommand->add_option("--name", jobs.name, "Only those of this name")->type_name("NAME");
    jobsCommand->add_option("--limit", jobs.limit, "So many at most; 0: all")
        ->type_name("N")
        ->check(asValidator(wholeNumber(0, kMostNumber)))
        ->capture_default_str();
    addJson(*jobsCommand, jobs.json);

    showCommand = command("show", "Tell all about a job", kJobNames);
    addJob(*showCommand, show.job);
    addJson(*showCommand, show.json);

    tasksCommand = command("tasks", "List the tasks of a job", kJobNames);
    addJob(*tasksCommand, tasks.job);
    addRepeated(*tasksCommand, "--state", tasks.states, "STATE", "Only those in this state; repeatable")
        ->check(CLI::IsMember(std::set<std::string>{"waiting", "ready", "granted", "running", "succeeded", "failed",
                                                    "cancelled", "skipped"}));
    tasksCommand->add_option("--limit", tasks.limit, "So many at most; 0: all")
        ->type_name("N")
        ->check(asValidator(wholeNumber(0, kMostNumber)))
        ->capture_default_str();
    addJson(*tasksCommand, tasks.json);

    statusCommand = command("status", "Tell about the service");
    addJson(*statusCommand, status.json);
  }

  void addLogs() {
    logsCommand = command("logs", "Print what a task has written", kJobNames);
    addJob(*logsCommand, logs.job);
    logsCommand->add_option("TASK", logTask, "The task's number (a job of one task needs none)")
        ->check(asValidator(wholeNumber(0, kMostNumber)));
    logsCommand->add_flag("-f,--follow", logs.follow, "Go on until the task has ended");
    logsCommand->add_flag("--stderr", logs.standardError, "Its standard error, not its standard output");
    logsCommand->add_option("--attempt", logs.attempt, "Of this attempt (default: the last one)")
        ->type_name("N")
        ->check(asValidator(wholeNumber(1, kMostNumber)));
  }

  void addWait() {
    waitCommand = command("wait", "Wait for jobs to end", kWaitFooter);
    waitCommand->add_option("JOB", wait.jobs, "The jobs")->required()->check(asValidator(notEmpty()));
    waitCommand->add_flag("--quiet", wait.quiet, "Say nothing of how they ended");
  }

  void addFetch() {
    fetchCommand = command("fetch", "Fetch the outputs of a job's tasks", std::string(kJobNames) + (kFetchFooter + 1));
    addJob(*fetchCommand, fetch.job);
    fetchCommand->add_option("--to", fetch.directory, "Where they go")
        ->type_name("DIR")
        ->check(asValidator(notEmpty()))
        ->capture_default_str();
    fetchCommand->add_option("--task", fetchTasks, "Only of these tasks: 7 or 0-99")->type_name("RANGE");
    fetchCommand->add_flag("--force", fetch.force, "Replace files that differ");
    fetchCommand->add_flag("--print", fetch.print, "Print standard output and error, and make no files of them");
  }

  void addSteering(const char* name, const char* help) {
    CLI::App* added = command(name, help, kJobNames);
    Steering& steering = steerings[name];
    steering.command = added;
    added->add_option("JOB", steering.options.jobs, "The jobs")->required()->check(asValidator(notEmpty()));
    steering.options.action = actionOf(name);
    if (steering.options.action == SteerOptions::Action::Cancel ||
        steering.options.action == SteerOptions::Action::Retry)
      addRepeated(*added, "--task", steering.tasks, "RANGE", "Only these tasks: 7 or 0-99; repeatable");
  }

  void addPrune() {
    pruneCommand = command("prune", "Remove jobs that ended long ago, with their outputs");
    pruneCommand->add_option("--older-than", olderThan, "How long ago they ended: 12h, 30d")
        ->type_name("TIME")
        ->required();
  }

  void addWorkers() {
    workersCommand = command("workers", "List workers");
    addJson(*workersCommand, workers.json);
    drainCommand = workersCommand->add_subcommand("drain", "Give a worker nothing new, so that it can be ended");
    drainCommand->fallthrough();
    drainCommand->add_option("WORKER", drain.worker, "The worker's number")
        ->required()
        ->check(asValidator(wholeNumber(1, kMostNumber)));
  }

  void addService() {
    serviceCommand = command("service", "Start or stop this user's own service");
    serviceCommand->require_subcommand(1);
    for (const auto& [name, action, help] :
         {std::tuple("start", ServiceOptions::Action::Start, "Start it, unless it runs"),
          std::tuple("stop", ServiceOptions::Action::Stop, "End it; jobs and workers stay"),
          std::tuple("restart", ServiceOptions::Action::Restart, "End it and start it again"),
          std::tuple("status", ServiceOptions::Action::Status, "Tell whether it runs")}) {
      CLI::App* added = serviceCommand->add_subcommand(name, help);
      added->fallthrough();
      serviceActions.emplace_back(added, action);
    }
  }

  SubmitOptions submitResult(std::vector<std::string> words) const {
    SubmitOptions result = submit;
    result.command = std::move(words);
    if (result.script.empty() && result.command.empty())
      throw UsageError("there is no command to submit; put it after --, as in: zks submit -- PROGRAM ARG...");
    for (const std::string& word : result.command)
      requireUtf8(word, "the command's word");
    takeTasks(result);
    for (const std::string& input : inputs)
      result.inputs.push_back(parseJobInput(input));
    for (const std::string& output : result.outputs)
      requireUtf8(output, "--output");
    if (!standardInput.empty())
      result.standardInput = standardInput;
    if (!inPlace.empty())
      result.inPlaceFolder = inPlace;
    for (const std::string& resource : resources)
      result.resources.push_back(parseResource(resource));
    if (!time.empty())
      result.timeSeconds = parseTime("--time", time);
    takeRetries(result);
    for (const std::string& other : after)
      result.after.push_back(parseAfter(other));
    if (!result.key.empty())
      checkKey(result.key);
    if (result.follow && result.open)
      throw UsageError("--follow waits for the job's end, which an --open job does not reach by itself");
    if (result.follow && result.quiet)
      throw UsageError("--follow shows the output, and --quiet shows nothing");
    return result;
  }

  void takeTasks(SubmitOptions& result) const {
    const int kinds = (array.empty() ? 0 : 1) + (lines.empty() ? 0 : 1) + (jsonList.empty() ? 0 : 1);
    if (kinds > 1)
      throw UsageError("--array, --lines and --json-list each say what the tasks are; give one of them");
    if (!array.empty())
      result.array = parseArray(array);
    if (!lines.empty())
      result.linesFile = lines;
    if (!jsonList.empty())
      result.jsonListFile = jsonList;
    if (lines == "-" && standardInput == "-")
      throw UsageError("--lines - and --stdin - cannot both have the standard input");
    if (result.array && result.array->atOnce > 0 && result.atOnce == 0)
      result.atOnce = result.array->atOnce;
  }

  void takeRetries(SubmitOptions& result) const {
    if (submitCommand->count("--retries") == 0) {
      if (!retryReasons.empty() || !retryDelay.empty())
        throw UsageError("--retry-on and --retry-delay go with --retries N");
      return;
    }
    RetryArgument retries;
    retries.limit = retryLimit;
    parseRetryReasons(retryReasons.empty() ? "exit,signal" : retryReasons, retries);
    if (!retryDelay.empty())
      retries.delaySeconds = parseTime("--retry-delay", retryDelay);
    result.retries = retries;
  }

  JobCommand serviceResult() const {
    for (const auto& [added, action] : serviceActions) {
      if (added->parsed())
        return ServiceOptions{action};
    }
    return ServiceOptions{};
  }

  LogsOptions logsResult() const {
    LogsOptions result = logs;
    if (logsCommand->count("TASK") > 0)
      result.task = logTask;
    return result;
  }

  FetchOptions fetchResult() const {
    FetchOptions result = fetch;
    if (!fetchTasks.empty())
      result.tasks = parseTaskRange(fetchTasks);
    return result;
  }

  std::optional<JobCommand> steeringResult() const {
    for (const auto& [name, steering] : steerings) {
      if (!steering.command->parsed())
        continue;
      SteerOptions result = steering.options;
      result.tasks = rangesOf(steering.tasks);
      if (!result.tasks.empty() && result.jobs.size() > 1)
        throw UsageError("--task goes with one job");
      return result;
    }
    return std::nullopt;
  }

  std::optional<JobCommand> result(std::vector<std::string> words) const {
    if (submitCommand->parsed())
      return submitResult(std::move(words));
    if (jobsCommand->parsed())
      return jobs;
    if (showCommand->parsed())
      return show;
    if (tasksCommand->parsed())
      return tasks;
    if (logsCommand->parsed())
      return logsResult();
    if (waitCommand->parsed())
      return wait;
    if (fetchCommand->parsed())
      return fetchResult();
    if (pruneCommand->parsed())
      return PruneOptions{parseTime("--older-than", olderThan)};
    if (drainCommand->parsed())
      return drain;
    if (workersCommand->parsed())
      return workers;
    if (statusCommand->parsed())
      return status;
    if (serviceCommand->parsed())
      return serviceResult();
    return steeringResult();
  }

  struct Steering {
    CLI::App* command = nullptr;
    SteerOptions options;
    std::vector<std::string> tasks;
  };

  CLI::App& app;
  CLI::App* submitCommand = nullptr;
  CLI::App* jobsCommand = nullptr;
  CLI::App* showCommand = nullptr;
  CLI::App* tasksCommand = nullptr;
  CLI::App* statusCommand = nullptr;
  CLI::App* logsCommand = nullptr;
  CLI::App* waitCommand = nullptr;
  CLI::App* fetchCommand = nullptr;
  CLI::App* pruneCommand = nullptr;
  CLI::App* workersCommand = nullptr;
  CLI::App* drainCommand = nullptr;
  CLI::App* serviceCommand = nullptr;
  std::map<std::string, Steering> steerings;
  std::vector<std::pair<CLI::App*, ServiceOptions::Action>> serviceActions;

  SubmitOptions submit;
  std::string array;
  std::string lines;
  std::string jsonList;
  std::vector<std::string> inputs;
  std::string standardInput;
  std::string inPlace;
  std::vector<std::string> resources;
  std::string time;
  std::uint32_t retryLimit = 0;
  std::string retryReasons;
  std::string retryDelay;
  std::vector<std::string> after;
  JobsOptions jobs;
  ShowOptions show;
  TasksOptions tasks;
  StatusOptions status;
  LogsOptions logs;
  std::uint64_t logTask = 0;
  WaitOptions wait;
  FetchOptions fetch;
  std::string fetchTasks;
  std::string olderThan;
  WorkersOptions workers;
  DrainOptions drain;
};

JobGrammar::JobGrammar(CLI::App& app) : commands_(std::make_unique<Commands>(app)) {}
JobGrammar::~JobGrammar() = default;

bool JobGrammar::takesCommand() const {
  return commands_->submitCommand->parsed();
}

std::string JobGrammar::script() const {
  return commands_->submitCommand->parsed() ? commands_->submit.script : "";
}

std::optional<JobCommand> JobGrammar::result(std::vector<std::string> command) const {
  return commands_->result(std::move(command));
}

}  // namespace zks
