#include "cli/jobTexts.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>
#include <vector>

#include "cli/Json.h"
#include "cli/ProgressBar.h"
#include "cli/statusText.h"

namespace zks {
namespace {

using parallel::zksmessages::Ending;
using parallel::zksmessages::JobSummary;
using parallel::zksmessages::Resources;
using parallel::zksmessages::TaskCounts;
using parallel::zksmessages::TaskState;
using parallel::zksmessages::TaskSummary;

using NamedCounts = std::array<std::pair<const char*, std::uint64_t>, 8>;

NamedCounts named(const TaskCounts& counts) {
  return {{{"waiting", counts.waiting()},
           {"ready", counts.ready()},
           {"granted", counts.granted()},
           {"running", counts.running()},
           {"succeeded", counts.succeeded()},
           {"failed", counts.failed()},
           {"cancelled", counts.cancelled()},
           {"skipped", counts.skipped()}}};
}

std::tm split(std::int64_t milliseconds, std::tm* (*how)(const std::time_t*, std::tm*)) {
  const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
  std::tm parts{};
  how(&seconds, &parts);
  return parts;
}

std::string formatted(double number, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, number);
  return text;
}

// "2 h 5 min": the larger unit and, where there is any, the rest in the smaller one.
std::string twoUnits(std::uint64_t amount, std::uint64_t smaller, const char* largeUnit, const char* smallUnit) {
  const std::uint64_t rest = amount % smaller;
  const std::string large = std::to_string(amount / smaller) + " " + largeUnit;
  return rest == 0 ? large : large + " " + std::to_string(rest) + " " + smallUnit;
}

std::string lastLine(std::string text) {
  text.erase(text.find_last_not_of(" \t\r\n") + 1);
  return text.substr(text.rfind('\n') + 1);
}

}  // namespace

std::string stateText(TaskState state) {
  constexpr const char* kNames[] = {"unknown",   "waiting", "ready",     "granted", "running",
                                    "succeeded", "failed",  "cancelled", "skipped"};
  const auto number = static_cast<std::size_t>(state);
  return number < std::size(kNames) ? kNames[number] : "unknown";
}

std::string jobStateText(const JobSummary& job) {
  const TaskCounts& counts = job.counts();
  if (job.has_ended()) {
    if (counts.failed() > 0)
      return "failed";
    if (counts.cancelled() > 0)
      return "cancelled";
    return counts.skipped() > 0 ? "skipped" : "succeeded";
  }
  if (counts.running() + counts.granted() > 0)
    return "running";
  if (job.held())
    return "held";
  if (counts.ready() > 0)
    return "ready";
  return counts.waiting() > 0 ? "waiting" : "open";
}

std::uint64_t countAll(const TaskCounts& counts) {
  std::uint64_t all = 0;
  for (const auto& [name, count] : named(counts))
    all += count;
  return all;
}

std::uint64_t countEnded(const TaskCounts& counts) {
  return counts.succeeded() + counts.failed() + counts.cancelled() + counts.skipped();
}

bool allSucceeded(const JobSummary& job) {
  return job.has_ended() && countAll(job.counts()) == job.counts().succeeded();
}

std::string countsText(const TaskCounts& counts) {
  const std::uint64_t all = countAll(counts);
  std::string text;
  for (const auto& [name, count] : named(counts)) {
    if (count > 0)
      text += (text.empty() ? ": " : ", ") + std::to_string(count) + " " + name;
  }
  return std::to_string(all) + (all == 1 ? " task" : " tasks") + text;
}

std::string countsJson(const TaskCounts& counts) {
  JsonObject object;
  for (const auto& [name, count] : named(counts))
    object.add(name, count);
  return object.text();
}

std::string endingText(const Ending& ending) {
  switch (ending.reason()) {
    case Ending::REASON_SUCCESS:
      return "success";
    case Ending::REASON_EXIT_CODE:
      return "exit code " + std::to_string(ending.code());
    case Ending::REASON_SIGNAL:
      return "signal " + std::to_string(ending.code()) + " (" + ::strsignal(ending.code()) + ")";
    case Ending::REASON_OUT_OF_MEMORY:
      return "out of memory";
    case Ending::REASON_TIME_LIMIT:
      return "its time was over";
    case Ending::REASON_NOT_STARTED:
      return "could not be started";
    case Ending::REASON_WORKER_LOST:
      return "its worker was lost";
    case Ending::REASON_TOOK_WORKER_DOWN:
      return "took its workers down";
    case Ending::REASON_CANCELLED:
      return "cancelled";
    case Ending::REASON_DEPENDENCY:
      return "a task that it waited for did not succeed";
    case Ending::REASON_SUPERSEDED:
      return "given to another worker meanwhile";
    case Ending::REASON_HANDED_BACK:
      return "handed back undone";
    default:
      return "";
  }
}

std::string reasonWord(Ending::Reason reason) {
  constexpr const char* kWords[] = {"none",       "success",     "exit_code",   "signal",           "out_of_memory",
                                    "time_limit", "not_started", "worker_lost", "took_worker_down", "cancelled",
                                    "dependency", "superseded",  "handed_back"};
  const auto number = static_cast<std::size_t>(reason);
  return number < std::size(kWords) ? kWords[number] : "unknown";
}

std::string localTimeText(std::int64_t milliseconds) {
  if (milliseconds == 0)
    return "";
  const std::tm parts = split(milliseconds, ::localtime_r);
  char text[64];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts)};
}

std::string utcTimeText(std::int64_t milliseconds) {
  const std::tm parts = split(milliseconds, ::gmtime_r);
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  char fraction[16];
  std::snprintf(fraction, sizeof fraction, ".%03uZ", static_cast<unsigned>(milliseconds % 1000));
  return std::string(text, length) + fraction;
}

std::string durationText(double seconds) {
  constexpr std::uint64_t kMinute = 60;
  constexpr std::uint64_t kHour = 60;
  constexpr std::uint64_t kDay = 24;
  if (seconds < 10)
    return formatted(seconds, seconds < 1 ? 2 : 1) + " s";
  const auto whole = static_cast<std::uint64_t>(seconds);
  if (whole < kMinute)
    return std::to_string(whole) + " s";
  if (whole < kMinute * kHour)
    return twoUnits(whole, kMinute, "min", "s");
  if (whole < kMinute * kHour * kDay)
    return twoUnits(whole / kMinute, kHour, "h", "min");
  return twoUnits(whole / kMinute / kHour, kDay, "d", "h");
}

double secondsOf(const google::protobuf::Duration& duration) {
  return static_cast<double>(duration.seconds()) + static_cast<double>(duration.nanos()) / 1e9;
}

std::string jobText(const JobSummary& job) {
  return "job " + std::to_string(job.job()) + (job.name().empty() ? "" : " (" + job.name() + ")");
}

std::string resourcesText(const Resources& resources) {
  std::string text = std::to_string(resources.cores()) + (resources.cores() == 1 ? " core" : " cores");
  if (resources.memory_bytes() > 0)
    text += ", " + bytesText(static_cast<double>(resources.memory_bytes()));
  std::vector<std::pair<std::string, std::uint64_t>> sorted(resources.named().begin(), resources.named().end());
  std::sort(sorted.begin(), sorted.end());
  for (const auto& [name, count] : sorted)
    text.append(", ").append(name).append("=").append(std::to_string(count));
  return text;
}

std::string resourcesJson(const Resources& resources) {
  std::vector<std::pair<std::string, std::uint64_t>> sorted(resources.named().begin(), resources.named().end());
  std::sort(sorted.begin(), sorted.end());
  JsonObject others;
  for (const auto& [name, count] : sorted)
    others.add(name, count);
  JsonObject object;
  object.add("cores", resources.cores()).add("memory_bytes", resources.memory_bytes()).addRaw("named", others.text());
  return object.text();
}

std::string taskNote(const TaskSummary& task) {
  if (!task.why_waiting().empty())
    return task.why_waiting();
  const bool isGood = task.state() == parallel::zksmessages::TASK_STATE_SUCCEEDED;
  std::string note = isGood ? "" : endingText(task.ending());
  for (const std::string& more : {isGood ? "" : task.info().message(), lastLine(task.error_end())}) {
    if (!more.empty())
      note += (note.empty() ? "" : ": ") + more;
  }
  return note;
}

std::string waitText(const std::string& name, const TaskCounts& counts, std::uint64_t ended, double seconds,
                     std::size_t columns) {
  const std::uint64_t all = countAll(counts);
  const std::uint64_t done = countEnded(counts);
  const std::string amount = name + ": " + std::to_string(done) + " of " + std::to_string(all);
  const std::uint64_t bad = counts.failed() + counts.cancelled() + counts.skipped();
  std::string states;
  for (const auto& [word, count] : {std::pair("running", counts.running()), std::pair("not succeeded", bad)}) {
    if (count > 0)
      states.append(", ").append(std::to_string(count)).append(" ").append(word);
  }
  std::string pace;
  if (ended > 0 && seconds > 0) {
    const double rate = static_cast<double>(ended) / seconds;
    pace = " " + formatted(rate, rate < 10 ? 2 : 0) + "/s, " + durationText(static_cast<double>(all - done) / rate) +
           " left";
  }
  const std::size_t besideBar = amount.size() + states.size() + pace.size();
  if (all > 0 && columns >= besideBar + kNarrowestBar)
    return amount + states +
           barText(static_cast<double>(done) / static_cast<double>(all), std::min(columns - besideBar, kWidestBar)) +
           pace;
  return firstThatFits({amount + states + pace, amount + states, amount}, columns);
}

}  // namespace zks
