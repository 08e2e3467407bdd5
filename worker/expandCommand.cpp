#include "worker/expandCommand.h"

#include <map>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace parallel::worker {

using zksmessages::TaskCommand;

namespace {

std::string valueOf(std::string_view name, std::string_view text, const TaskValues& values) {
  if (name == "index")
    return std::to_string(values.index);
  if (name == "line" && values.line)
    return *values.line;
  throw Exception<UnknownPlaceholder>(
      "{" + std::string(name) + "}", std::string(text),
      values.line ? "{index} and {line} are known" : "{index} is known, and the array has no lines");
}

}  // namespace

std::string expandText(std::string_view text, const TaskValues& values) {
  std::string result;
  std::size_t at = 0;
  for (std::size_t brace = text.find('{'); brace != std::string_view::npos; brace = text.find('{', at)) {
    result += text.substr(at, brace - at);
    if (text.substr(brace, 2) == "{{") {
      result += '{';
      at = brace + 2;
      continue;
    }
    const std::size_t end = text.find('}', brace);
    if (end == std::string_view::npos)
      throw Exception<OpenPlaceholder>(std::string(text));
    result += valueOf(text.substr(brace + 1, end - brace - 1), text, values);
    at = end + 1;
  }
  return result += text.substr(at);
}

TaskCommand expandCommand(const TaskCommand& command, const TaskValues& values) {
  TaskCommand result = command;
  for (std::string& argument : *result.mutable_argv())
    argument = expandText(argument, values);
  for (auto& [name, value] : *result.mutable_environment())
    value = expandText(value, values);
  for (auto& input : *result.mutable_inputs())
    input.set_name(expandText(input.name(), values));
  for (std::string& output : *result.mutable_outputs())
    output = expandText(output, values);
  return result;
}

std::vector<std::string> environmentOf(const TaskCommand& command, const zksmessages::AttemptKey& attempt,
                                       const TaskValues& values, std::uint32_t cores) {
  std::map<std::string, std::string> variables(command.environment().begin(), command.environment().end());
  variables.emplace("OMP_NUM_THREADS", std::to_string(cores));
  variables["ZKS_JOB"] = std::to_string(attempt.job());
  variables["ZKS_TASK"] = std::to_string(attempt.task());
  variables["ZKS_ATTEMPT"] = std::to_string(attempt.number());
  variables["ZKS_INDEX"] = std::to_string(values.index);
  variables["ZKS_CORES"] = std::to_string(cores);
  if (values.line)
    variables["ZKS_LINE"] = *values.line;
  std::vector<std::string> entries;
  entries.reserve(variables.size());
  for (const auto& [name, value] : variables)
    entries.emplace_back(name).append("=").append(value);
  return entries;
}

}  // namespace parallel::worker
