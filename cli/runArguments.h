// The values of "zks run" that are more than a word, taken apart and checked.
//
// Errors: UsageError, with what was given and what is wanted.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "cli/CommandLine.h"

namespace zks {

// "PATH", or "NAME=PATH" where the name holds no slash.
InputArgument parseInput(const std::string& text);

// "NAME", or "NAME/" for a folder.
OutputArgument parseOutput(const std::string& text);

// "NAME=VALUE"s, each name once.
std::vector<std::pair<std::string, std::string>> splitEnvironment(const std::vector<std::string>& settings);

// That all can be told to a service and nothing is named twice.
void checkRun(const RunOptions& run);

}  // namespace zks
