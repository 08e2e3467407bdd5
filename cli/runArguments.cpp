#include "cli/runArguments.h"

#include <set>

#include "cli/CliError.h"
#include "platform/errors/ustring.h"

namespace zks {
namespace {

[[noreturn]] void refuse(const std::string& text) {
  throw UsageError(text);
}

void refuseRepeats(const std::vector<std::string>& names, const std::string& what, const std::string& advice = "") {
  std::set<std::string> seen;
  for (const std::string& name : names) {
    if (!seen.insert(name).second)
      refuse(std::string(what).append(" \"").append(name).append("\" is given twice").append(advice));
  }
}

bool isPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// Messages carry texts, and the task is described in one.
void requireUtf8(const std::string& text, const std::string& what) {
  if (!fl::i18n::isWellFormed(text))
    refuse(what + " \"" + text + "\" is not UTF-8, as all that a task is told has to be");
}

std::string lastPart(std::string path) {
  while (path.size() > 1 && path.ends_with('/'))
    path.pop_back();
  return path.substr(path.rfind('/') + 1);
}

}  // namespace

InputArgument parseInput(const std::string& text) {
  const std::size_t equals = text.find('=');
  const bool isNamed = equals != std::string::npos && equals > 0 && text.find('/') > equals;
  InputArgument input =
      isNamed ? InputArgument{text.substr(0, equals), text.substr(equals + 1)} : InputArgument{lastPart(text), text};
  if (input.path.empty() || !isPlainName(input.name))
    refuse("--file \"" + text + "\" does not name a file or folder; give PATH, or NAME=PATH for another name");
  return input;
}

OutputArgument parseOutput(const std::string& text) {
  OutputArgument output{text, text.ends_with('/')};
  if (output.isFolder)
    output.name.pop_back();
  if (!isPlainName(output.name))
    refuse("--output \"" + text + "\" is not a plain file name");
  return output;
}

std::vector<std::pair<std::string, std::string>> splitEnvironment(const std::vector<std::string>& settings) {
  std::vector<std::pair<std::string, std::string>> environment;
  std::vector<std::string> names;
  for (const std::string& setting : settings) {
    const std::size_t equals = setting.find('=');
    if (equals == std::string::npos || equals == 0)
      refuse("--env \"" + setting + "\" is not of the form NAME=VALUE");
    environment.emplace_back(setting.substr(0, equals), setting.substr(equals + 1));
    names.push_back(environment.back().first);
  }
  refuseRepeats(names, "--env");
  return environment;
}

void checkRun(const RunOptions& run) {
  if (run.command.empty())
    refuse("there is no command to run; put it after --, as in: zks run -- COMMAND ARG...");
  for (const std::string& word : run.command)
    requireUtf8(word, "the command's word");
  std::vector<std::string> names;
  for (const InputArgument& input : run.inputs) {
    requireUtf8(input.path, "--file");
    requireUtf8(input.name, "--file");
    names.push_back(input.name);
  }
  refuseRepeats(names, "the input file", "; NAME=PATH gives one another name");
  names.clear();
  for (const OutputArgument& output : run.outputs) {
    requireUtf8(output.name, "--output");
    names.push_back(output.name);
  }
  refuseRepeats(names, "--output");
  for (const auto& [name, value] : run.environment)
    requireUtf8(std::string(name).append("=").append(value), "--env");
}

}  // namespace zks
