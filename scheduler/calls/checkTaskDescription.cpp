#include "scheduler/calls/checkTaskDescription.h"

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/visibleText.h"
#include "platform/files/relativePath.h"
#include "scheduler/calls/durations.h"

namespace parallel::scheduler {

using errors::inQuotes;
using zksmessages::TaskDescription;
using zksmessages::TaskLimits;
using Names = google::protobuf::RepeatedPtrField<std::string>;

namespace {

[[noreturn]] void refuse(const std::string& field, const std::string& problem) {
  throw Exception<parallel::scheduler::BadTaskField>(field, problem);
}

bool hasNul(std::string_view text) {
  return text.find('\0') != std::string_view::npos;
}

std::string element(const char* field, int index) {
  return std::string(field) + "[" + std::to_string(index) + "]";
}

void checkArguments(const Names& argv) {
  if (argv.empty())
    refuse("argv", "it is empty, and names no program");
  if (argv[0].empty())
    refuse("argv[0]", "\"\" is not a program");
  for (int i = 0; i < argv.size(); ++i) {
    if (hasNul(argv[i]))
      refuse(element("argv", i), "it holds a NUL");
  }
}

void checkEnvironment(const TaskDescription& task) {
  for (const auto& [name, value] : task.environment()) {
    const std::string field = "environment[" + inQuotes(name) + "]";
    if (name.empty())
      refuse(field, "a variable needs a name");
    if (hasNul(name) || name.find('=') != std::string::npos)
      refuse(field, "a variable's name holds neither \"=\" nor a NUL");
    if (hasNul(value))
      refuse(field, "its value holds a NUL");
  }
}

constexpr std::size_t kMaxNameBytes = 255;

// Empty when the name is a good one.
std::string problemOfName(const std::string& name) {
  if (name.empty() || name == "." || name == "..")
    return " is not the name of a file";
  if (name.find('/') != std::string::npos)
    return " holds a \"/\", and a file's name here has no directories";
  if (hasNul(name))
    return " holds a NUL";
  if (name.size() > kMaxNameBytes)
    return " is longer than " + std::to_string(kMaxNameBytes) + " bytes";
  return "";
}

void checkNames(const char* field, const Names& names, std::string (*problemOf)(const std::string&)) {
  std::set<std::string_view> seen;
  for (int i = 0; i < names.size(); ++i) {
    if (const std::string problem = problemOf(names[i]); !problem.empty())
      refuse(element(field, i), inQuotes(names[i]) + problem);
    if (!seen.insert(names[i]).second)
      refuse(element(field, i), inQuotes(names[i]) + " is there twice");
  }
}

// Empty when the path is a good one.
std::string problemOfPath(const std::string& path) {
  constexpr std::size_t kMaxPathBytes = 2048;
  if (hasNul(path))
    return " holds a NUL";
  if (!files::isRelativePath(path))
    return " is not the path of a file in the task's directory";
  if (path.size() > kMaxPathBytes)
    return " is longer than " + std::to_string(kMaxPathBytes) + " bytes";
  for (std::string_view rest = path;; rest.remove_prefix(files::firstPart(rest).size() + 1)) {
    const std::string_view part = files::firstPart(rest);
    if (part.size() > kMaxNameBytes)
      return " has a name longer than " + std::to_string(kMaxNameBytes) + " bytes";
    if (part.size() == rest.size())
      return "";
  }
}

// That no file is a folder too, or is to have something inside.
void checkNesting(const char* field, const Names& paths, const std::set<std::string_view>& files) {
  for (int i = 0; i < paths.size(); ++i) {
    const std::string_view path = paths[i];
    for (std::size_t at = path.find('/'); at != std::string_view::npos; at = path.find('/', at + 1)) {
      if (files.contains(path.substr(0, at)))
        refuse(element(field, i), inQuotes(path) + " is in " + inQuotes(path.substr(0, at)) + ", which is a file");
    }
  }
}

void checkInputs(const TaskDescription& task) {
  checkNames("input_files", task.input_files(), problemOfPath);
  checkNames("input_folders", task.input_folders(), problemOfPath);
  const std::set<std::string_view> files(task.input_files().begin(), task.input_files().end());
  for (int i = 0; i < task.input_folders_size(); ++i) {
    if (files.contains(task.input_folders(i)))
      refuse(element("input_folders", i), inQuotes(task.input_folders(i)) + " is a file too");
  }
  checkNesting("input_files", task.input_files(), files);
  checkNesting("input_folders", task.input_folders(), files);
}

void checkPrograms(const TaskDescription& task) {
  const std::set<std::string_view> inputs(task.input_files().begin(), task.input_files().end());
  for (int i = 0; i < task.executable_inputs_size(); ++i) {
    if (!inputs.contains(task.executable_inputs(i)))
      refuse(element("executable_inputs", i), inQuotes(task.executable_inputs(i)) + " is not among input_files");
  }
}

void checkDuration(const char* field, const google::protobuf::Duration& duration) {
  if (!isPositiveDuration(duration))
    refuse(field, std::to_string(duration.seconds()) + " s and " + std::to_string(duration.nanos()) +
                      " ns is not a length of time above zero");
}

void checkLimits(const TaskLimits& limits) {
  constexpr std::uint64_t kFewestOpenFiles = 4;  // the standard streams, and one to load the program with
  if (limits.has_wall_time())
    checkDuration("limits.wall_time", limits.wall_time());
  if (limits.has_cpu_time())
    checkDuration("limits.cpu_time", limits.cpu_time());
  if (limits.has_memory_bytes() && limits.memory_bytes() == 0)
    refuse("limits.memory_bytes", "nothing runs in 0 bytes");
  if (limits.has_open_files() && limits.open_files() < kFewestOpenFiles)
    refuse("limits.open_files", std::to_string(limits.open_files()) + " is too few; a program needs at least " +
                                    std::to_string(kFewestOpenFiles));
}

}  // namespace

void checkTaskDescription(const TaskDescription& task) {
  checkArguments(task.argv());
  checkEnvironment(task);
  checkInputs(task);
  checkNames("output_files", task.output_files(), problemOfName);
  checkPrograms(task);
  checkLimits(task.limits());
}

}  // namespace parallel::scheduler
