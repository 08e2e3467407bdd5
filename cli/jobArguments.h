// The values of the commands of kept jobs that are more than a word, taken apart and checked.
//
// Errors: UsageError, with what was given and what is wanted.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/jobOptions.h"

namespace zks {

// "7", "0-99", "0-99:2", "0-99%10", "0-99:2%10".
ArrayArgument parseArray(const std::string& text);

// Seconds of "90", "1.5h", "1h30m", "2d", "45s", "500ms" or "1:30:00"; above zero. `option` is named in the refusal.
double parseTime(const std::string& option, const std::string& text);

AfterArgument parseAfter(const std::string& text);

// "7" or "0-99".
TaskRange parseTaskRange(const std::string& text);

// "FILE" or "FILE=NAME". A path that holds an "=" is written with a "=" and its name after it.
JobInputArgument parseJobInput(const std::string& text);

// "NAME=N".
std::pair<std::string, std::uint64_t> parseResource(const std::string& text);

// The words of --retry-on, "exit", "exit:75", "signal", "memory", "time" and "lost", separated by commas.
void parseRetryReasons(const std::string& text, RetryArgument& retries);

// 1 to 128 letters, digits, "-", "_" and ".".
void checkKey(const std::string& key);

// The options in a script: of each line that begins with "# zks:", up to the first line that is neither empty nor a comment. Words are
// separated by blanks, and quoted as in a shell.
std::vector<std::string> optionsInScript(std::string_view script);

}  // namespace zks
