#include "cli/jobDescription.h"

#include <google/protobuf/struct.pb.h>
#include <google/protobuf/util/json_util.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <string_view>

#include "cli/CliError.h"
#include "cli/FileContents.h"
#include "cli/StandardStreams.h"
#include "platform/errors/ustring.h"
#include "toolbox/folders.h"
#include "toolbox/streamItem.h"
#include "transport/streams/FunctionalByteSink.h"

namespace zks {
namespace {

using parallel::toolbox::LocalBlob;
using parallel::zksmessages::Blob;
using parallel::zksmessages::Dependency;
using parallel::zksmessages::RetryRules;
using parallel::zksmessages::TaskArray;
using parallel::zksmessages::TaskCommand;

// What travels in the description altogether; the rest goes as blobs of their own.
constexpr std::uint64_t kMostInline = std::uint64_t{4} << 20U;

constexpr std::string_view kUsualVariables[] = {"PATH", "HOME", "USER", "LOGNAME", "SHELL", "LANG", "LANGUAGE", "TZ"};
constexpr std::string_view kLocalePrefix = "LC_";

std::string lastPart(std::string path) {
  while (path.size() > 1 && path.ends_with('/'))
    path.pop_back();
  return path.substr(path.rfind('/') + 1);
}

bool isProgram(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && (status.st_mode & S_IXUSR) != 0;
}

std::string textOf(const FileContents& file) {
  return {reinterpret_cast<const char*>(file.bytes().data()), file.bytes().size()};
}

std::string standardInputText() {
  std::string text;
  parallel::spf::transport::FunctionalByteSink sink(
      [&](const std::byte* data, std::size_t n) { text.append(reinterpret_cast<const char*>(data), n); });
  parallel::toolbox::copyToEnd(STDIN_FILENO, "standard input", sink);
  return text;
}

std::string textAt(const std::string& path) {
  return path == "-" ? standardInputText() : textOf(FileContents(path));
}

google::protobuf::Duration duration(double seconds) {
  const auto whole = std::chrono::ceil<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds)).count();
  google::protobuf::Duration message;
  message.set_seconds(whole / 1'000'000'000);
  message.set_nanos(static_cast<std::int32_t>(whole % 1'000'000'000));
  return message;
}

bool isUsual(std::string_view name) {
  return name.starts_with(kLocalePrefix) ||
         std::find(std::begin(kUsualVariables), std::end(kUsualVariables), name) != std::end(kUsualVariables);
}

void requireUtf8(const std::string& text, const std::string& what) {
  if (!fl::i18n::isWellFormed(text))
    throw UsageError(what + " \"" + text + "\" is not UTF-8, as all that a task is told has to be");
}

class Describing {
 public:
  explicit Describing(const SubmitOptions& options) : options_(options), array_(*result_.job.add_arrays()) {}

  DescribedJob run(const std::vector<Dependency>& dependencies) {
    describeSelf();
    describeTasks();
    describeCommand();
    for (const auto& [name, value] : taskEnvironment(options_.environment, options_.wholeEnvironment))
      (*command().mutable_environment())[name] = value;
    describeNeeds();
    if (options_.retries)
      describeRetries(*options_.retries, *array_.mutable_retries());
    for (const Dependency& other : dependencies)
      *array_.add_dependencies() = other;
    return std::move(result_);
  }

 private:
  TaskCommand& command() { return *array_.mutable_command(); }

  void describeSelf() {
    const std::string program = options_.script.empty() ? options_.command.front() : options_.script;
    result_.job.set_name(options_.name.empty() ? lastPart(program) : options_.name);
    requireUtf8(result_.job.name(), "--name");
    result_.job.set_priority(options_.priority);
    result_.job.set_held(options_.held);
    result_.job.set_open(options_.open);
  }

  void describeTasks() {
    array_.set_count(1);
    array_.set_index_step(1);
    array_.set_at_once(options_.atOnce);
    if (options_.array) {
      array_.set_count(options_.array->count());
      array_.set_first_index(options_.array->first);
      array_.set_index_step(options_.array->step);
    } else if (options_.linesFile) {
      setLines(linesOf(textAt(*options_.linesFile)), *options_.linesFile);
    } else if (options_.jsonListFile) {
      setLines(linesOfJson(textAt(*options_.jsonListFile)), *options_.jsonListFile);
    }
  }

  void setLines(Lines lines, const std::string& path) {
    if (lines.count == 0)
      throw CliError("\"" + path + "\" has no lines, so there are no tasks");
    requireUtf8(lines.text, "the file");
    array_.set_count(lines.count);
    *array_.mutable_lines() = described(LocalBlob::ofBytes(std::move(lines.text)));
  }

  void describeCommand() {
    if (options_.script.empty())
      setProgram();
    else
      setScript();
    for (const std::string& word : options_.command)
      command().add_argv(word);
    for (const JobInputArgument& input : options_.inputs)
      addInput(input);
    for (const std::string& output : options_.outputs)
      command().add_outputs(output);
    if (options_.standardInput)
      *command().mutable_standard_input() =
          described(*options_.standardInput == "-" ? LocalBlob::ofBytes(standardInputText())
                                                   : LocalBlob::ofFile(*options_.standardInput));
    if (options_.timeSeconds)
      *command().mutable_limits()->mutable_wall_time() = duration(*options_.timeSeconds);
  }

  void setProgram() {
    if (options_.inPlaceFolder)
      command().set_in_place_folder(std::filesystem::absolute(*options_.inPlaceFolder).lexically_normal().string());
  }

  // Runs as it is; a script that does not say by what goes to the shell.
  void setScript() {
    setProgram();
    const std::string text = textOf(FileContents(options_.script));
    const bool saysByWhat = text.starts_with("#!");
    if (!saysByWhat)
      command().add_argv("sh");
    if (options_.inPlaceFolder) {
      command().add_argv(literalText(std::filesystem::absolute(options_.script).lexically_normal().string()));
      return;
    }
    const std::string name = literalText(lastPart(options_.script));
    command().add_argv("./" + name);
    addFile(name, options_.script, true);
  }

  void addInput(const JobInputArgument& input) {
    if (options_.inPlaceFolder)
      throw UsageError("--input sends files along, and a job with --in-place has them there");
    const std::string name = input.name ? *input.name : literalText(lastPart(input.path));
    if (!std::filesystem::is_directory(input.path))
      return addFile(name, input.path, isProgram(input.path));
    for (const std::string& inside : parallel::toolbox::contentsOfFolder(input.path).files) {
      const std::string path = std::string(input.path).append("/").append(inside);
      addFile(std::string(name).append("/").append(literalText(inside)), path, isProgram(path));
    }
  }

  void addFile(const std::string& name, const std::string& path, bool executable) {
    requireUtf8(name, "--input");
    auto& input = *command().add_inputs();
    input.set_name(name);
    input.set_executable(executable);
    *input.mutable_content() = described(LocalBlob::ofFile(path));
  }

  // What has no room in the description is put beside it.
  Blob described(LocalBlob local) {
    Blob blob = local.described();
    inline_ += blob.content().size();
    if (blob.has_content() && inline_ > kMostInline)
      blob.clear_content();
    if (!blob.has_content())
      result_.blobs.push_back(std::move(local));
    return blob;
  }

  void describeNeeds() {
    array_.mutable_needs()->set_cores(options_.cores);
    array_.mutable_needs()->set_memory_bytes(options_.memoryBytes);
    for (const auto& [name, count] : options_.resources)
      (*array_.mutable_needs()->mutable_named())[name] = count;
  }

  static void describeRetries(const RetryArgument& retries, RetryRules& rules) {
    const auto set = [&](bool isWanted, parallel::zksmessages::RetryRule* (RetryRules::*rule)()) {
      if (!isWanted)
        return;
      auto& wanted = *(rules.*rule)();
      wanted.set_limit(retries.limit);
      if (retries.delaySeconds > 0) {
        constexpr double kLongest = 64;  // times the first one
        *wanted.mutable_first_delay() = duration(retries.delaySeconds);
        *wanted.mutable_longest_delay() = duration(retries.delaySeconds * kLongest);
      }
    };
    set(retries.exit, &RetryRules::mutable_exit_code);
    set(retries.signal, &RetryRules::mutable_signal);
    set(retries.memory, &RetryRules::mutable_out_of_memory);
    set(retries.time, &RetryRules::mutable_time_limit);
    set(retries.lost, &RetryRules::mutable_worker_lost);
    for (const std::int32_t code : retries.exitCodes)
      rules.add_exit_codes(code);
  }

  const SubmitOptions& options_;
  DescribedJob result_;
  TaskArray& array_;
  std::uint64_t inline_ = 0;
};

}  // namespace

DescribedJob describeJob(const SubmitOptions& options, const std::vector<Dependency>& dependencies) {
  return Describing(options).run(dependencies);
}

std::string literalText(const std::string& text) {
  std::string literal;
  for (const char c : text)
    literal.append(c == '{' ? 2 : 1, c);
  return literal;
}

Lines linesOf(std::string text) {
  if (!text.empty() && text.back() != '\n')
    text += '\n';
  const auto count = static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
  return {std::move(text), count};
}

Lines linesOfJson(const std::string& json) {
  google::protobuf::ListValue list;
  const auto status = google::protobuf::util::JsonStringToMessage(json, &list);
  if (!status.ok())
    throw CliError("this is not a JSON list: " + std::string(status.message()));
  Lines lines;
  for (const auto& value : list.values()) {
    if (value.kind_case() != google::protobuf::Value::kStringValue)
      throw CliError("the JSON list has something else than texts at place " + std::to_string(lines.count));
    if (value.string_value().find('\n') != std::string::npos)
      throw CliError("the JSON list has a text of several lines at place " + std::to_string(lines.count));
    lines.text += value.string_value() + "\n";
    ++lines.count;
  }
  return lines;
}

std::vector<std::pair<std::string, std::string>> taskEnvironment(const std::vector<std::string>& settings, bool whole) {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string setting = *entry;
    const std::size_t equals = setting.find('=');
    const std::string name = setting.substr(0, equals);
    if (equals != std::string::npos && equals > 0 && (whole || isUsual(name)) && fl::i18n::isWellFormed(setting))
      variables[name] = literalText(setting.substr(equals + 1));
  }
  for (const std::string& setting : settings) {
    const std::size_t equals = setting.find('=');
    const std::string name = setting.substr(0, equals);
    if (name.empty())
      throw UsageError("--env \"" + setting + "\" is not NAME or NAME=VALUE");
    requireUtf8(setting, "--env");
    if (equals != std::string::npos)
      variables[name] = setting.substr(equals + 1);
    else if (const char* value = std::getenv(name.c_str()))
      variables[name] = literalText(value);
    else
      throw UsageError("--env " + name + ": there is no such variable here; NAME=VALUE sets one");
  }
  return {variables.begin(), variables.end()};
}

}  // namespace zks
