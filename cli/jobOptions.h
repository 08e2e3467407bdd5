// What the commands of kept jobs are asked for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace zks {

// Indexes from first to last, each `step` after the one before; `atOnce` of them may run at once, 0: any number.
struct ArrayArgument {
  std::int64_t first = 0;
  std::int64_t last = 0;
  std::int64_t step = 1;
  std::uint64_t atOnce = 0;

  std::uint64_t count() const noexcept { return static_cast<std::uint64_t>((last - first) / step) + 1; }
  bool operator==(const ArrayArgument&) const = default;
};

// "JOB" or "JOB:TASK"; the job by number, name or "last".
struct AfterArgument {
  std::string job;
  std::optional<std::uint64_t> task;

  bool operator==(const AfterArgument&) const = default;
};

// Tasks from first to last, both of them included.
struct TaskRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;

  bool operator==(const TaskRange&) const = default;
};

// After which ends a task is tried again.
struct RetryArgument {
  std::uint32_t limit = 0;
  double delaySeconds = 0;
  bool exit = false;
  std::vector<std::int32_t> exitCodes;  // with `exit`: only these; empty: all
  bool signal = false;
  bool memory = false;
  bool time = false;
  bool lost = false;

  bool operator==(const RetryArgument&) const = default;
};

// A file of the user's and what it is called in the task's directory, where it may be a template.
struct JobInputArgument {
  std::string path;
  std::optional<std::string> name;

  bool operator==(const JobInputArgument&) const = default;
};

struct SubmitOptions {
  std::string name;  // empty: the program's
  std::string key;   // empty: a random one
  std::int32_t priority = 0;
  bool held = false;
  bool open = false;
  bool follow = false;
  bool quiet = false;
  std::string fetchDirectory = ".";  // with `follow`

  std::optional<ArrayArgument> array;
  std::optional<std::string> linesFile;  // "-": standard input
  std::optional<std::string> jsonListFile;
  std::uint64_t atOnce = 0;

  std::vector<JobInputArgument> inputs;
  std::vector<std::string> outputs;
  std::optional<std::string> standardInput;
  std::optional<std::string> inPlaceFolder;

  std::vector<std::string> environment;  // NAME or NAME=VALUE
  bool wholeEnvironment = false;

  std::uint32_t cores = 1;
  std::uint64_t memoryBytes = 0;
  std::vector<std::pair<std::string, std::uint64_t>> resources;
  std::optional<double> timeSeconds;
  std::optional<RetryArgument> retries;
  std::vector<AfterArgument> after;
  std::vector<std::string> afterSameIndex;

  std::string script;  // empty: `command` names the program
  std::vector<std::string> command;
};

struct JobsOptions {
  bool json = false;
  std::string name;          // empty: of any name
  std::uint64_t limit = 20;  // 0: all
};

struct ShowOptions {
  std::string job;
  bool json = false;
};

struct TasksOptions {
  std::string job;
  std::vector<std::string> states;
  std::uint64_t limit = 0;  // 0: all
  bool json = false;
};

struct LogsOptions {
  std::string job;
  std::optional<std::uint64_t> task;  // none: the only one
  std::uint64_t attempt = 0;          // 0: the last one
  bool follow = false;
  bool standardError = false;
};

struct WaitOptions {
  std::vector<std::string> jobs;
  bool quiet = false;
};

struct FetchOptions {
  std::string job;
  std::string directory = ".";
  std::optional<TaskRange> tasks;  // none: all
  bool force = false;
  bool print = false;  // standard output and error are written to those of zks
};

// What is done to jobs, or to some tasks of one.
struct SteerOptions {
  enum class Action { Cancel, Hold, Release, Retry, Delete };
  Action action = Action::Cancel;
  std::vector<std::string> jobs;
  std::vector<TaskRange> tasks;  // of Cancel and Retry; empty: all
};

struct PruneOptions {
  double olderThanSeconds = 0;
};

struct WorkersOptions {
  bool json = false;
};

struct DrainOptions {
  std::uint64_t worker = 0;
};

struct StatusOptions {
  bool json = false;
};

struct ServiceOptions {
  enum class Action { Start, Stop, Restart, Status };
  Action action = Action::Status;
};

using JobCommand =
    std::variant<SubmitOptions, JobsOptions, ShowOptions, TasksOptions, LogsOptions, WaitOptions, FetchOptions,
                 SteerOptions, PruneOptions, WorkersOptions, DrainOptions, StatusOptions, ServiceOptions>;

}  // namespace zks
