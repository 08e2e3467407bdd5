#include "cli/jobArguments.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>

#include "cli/CliError.h"

namespace zks {
namespace {

constexpr std::uint64_t kMostTasks = 1'000'000'000;

[[noreturn]] void refuse(const std::string& text) {
  throw UsageError(text);
}

template <class Number>
std::optional<Number> numberOf(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || text.empty())
    return std::nullopt;
  return number;
}

// What stands behind the mark, which is cut off with it; nothing when the mark is not there.
std::optional<std::string_view> cutOff(std::string_view& text, char mark) {
  const std::size_t place = text.find(mark);
  if (place == std::string_view::npos)
    return std::nullopt;
  const std::string_view rest = text.substr(place + 1);
  text = text.substr(0, place);
  return rest;
}

// "1:30:00" and "30:00": hours, minutes and seconds.
std::optional<double> clockSeconds(std::string_view text) {
  double seconds = 0;
  for (int parts = 0; parts < 3; ++parts) {
    const auto rest = cutOff(text, ':');
    const auto number = numberOf<std::uint32_t>(text);
    if (!number)
      return std::nullopt;
    seconds = seconds * 60 + *number;
    if (!rest)
      return parts > 0 ? std::optional(seconds) : std::nullopt;
    text = *rest;
  }
  return std::nullopt;
}

std::optional<double> unitSeconds(std::string_view unit) {
  constexpr std::pair<std::string_view, double> kUnits[] = {{"", 1},     {"s", 1},    {"ms", 0.001}, {"m", 60},
                                                            {"min", 60}, {"h", 3600}, {"d", 86400},  {"w", 604800}};
  const auto known =
      std::find_if(std::begin(kUnits), std::end(kUnits), [&](const auto& entry) { return entry.first == unit; });
  return known == std::end(kUnits) ? std::nullopt : std::optional(known->second);
}

// "1h30m".
std::optional<double> sumOfUnits(std::string_view text) {
  double seconds = 0;
  while (!text.empty()) {
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    if (error != std::errc() || number < 0)
      return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    const std::size_t length = std::min(text.find_first_of("0123456789."), text.size());
    const auto unit = unitSeconds(text.substr(0, length));
    if (!unit || (length == 0 && !text.empty()))
      return std::nullopt;
    seconds += number * *unit;
    text.remove_prefix(length);
  }
  return seconds;
}

template <class Number>
std::optional<std::pair<Number, Number>> numbersOf(std::string_view text) {
  const std::size_t dash = text.find('-', 1);
  const auto first = numberOf<Number>(text.substr(0, dash));
  const auto last = dash == std::string_view::npos ? first : numberOf<Number>(text.substr(dash + 1));
  if (!first || !last || *last < *first)
    return std::nullopt;
  return std::pair(*first, *last);
}

// Takes one word off, as a shell would; nothing when a quote is not closed.
std::optional<std::string> takeWord(std::string_view& text) {
  std::string word;
  char quote = 0;
  while (!text.empty()) {
    const char c = text.front();
    if (quote == 0 && (c == ' ' || c == '\t' || c == '\r'))
      break;
    text.remove_prefix(1);
    if (quote != 0 && c == quote) {
      quote = 0;
    } else if (quote == 0 && (c == '\'' || c == '"')) {
      quote = c;
    } else if (c == '\\' && quote != '\'' && !text.empty()) {
      word += text.front();
      text.remove_prefix(1);
    } else {
      word += c;
    }
  }
  return quote == 0 ? std::optional(word) : std::nullopt;
}

void addWords(std::string_view line, std::vector<std::string>& words) {
  const std::string_view whole = line;
  for (;;) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t\r"), line.size()));
    if (line.empty())
      return;
    const auto word = takeWord(line);
    if (!word)
      refuse("a quote is not closed in the script's line \"# zks:" + std::string(whole) + "\"");
    words.push_back(*word);
  }
}

}  // namespace

ArrayArgument parseArray(const std::string& text) {
  std::string_view rest = text;
  const auto atOnce = cutOff(rest, '%');
  const auto step = cutOff(rest, ':');
  const auto range = numbersOf<std::int64_t>(rest);
  const auto stepNumber = step ? numberOf<std::int64_t>(*step) : 1;
  const auto atOnceNumber = atOnce ? numberOf<std::uint64_t>(*atOnce) : 0;
  if (!range || range->first < 0 || !stepNumber || *stepNumber < 1 || !atOnceNumber || (atOnce && *atOnceNumber == 0))
    refuse("--array \"" + text +
           "\" is not a range of indexes such as 0-99, 0-99:2 (each second one) or 0-99%10 (ten at once)");
  const ArrayArgument array{range->first, range->second, *stepNumber, *atOnceNumber};
  if (array.count() > kMostTasks)
    refuse("--array \"" + text + "\" has more than " + std::to_string(kMostTasks) + " tasks");
  return array;
}

double parseTime(const std::string& option, const std::string& text) {
  constexpr double kMostSeconds = 100.0 * 365 * 86400;
  const auto clock = clockSeconds(text);
  const auto seconds = clock ? clock : sumOfUnits(text);
  if (!seconds || !(*seconds > 0) || *seconds > kMostSeconds)
    refuse(option + " \"" + text + "\" is not a time above zero such as 90 (seconds), 15m, 1h30m, 2d or 1:30:00");
  return *seconds;
}

AfterArgument parseAfter(const std::string& text) {
  std::string_view job = text;
  const auto task = cutOff(job, ':');
  const auto number = task ? numberOf<std::uint64_t>(*task) : std::nullopt;
  if (job.empty() || (task && !number))
    refuse("--after \"" + text + "\" is not JOB or JOB:TASK");
  return {std::string(job), number};
}

TaskRange parseTaskRange(const std::string& text) {
  const auto range = numbersOf<std::uint64_t>(text);
  if (!range)
    refuse("\"" + text + "\" is not a task or a range of tasks such as 7 or 0-99");
  return {range->first, range->second};
}

JobInputArgument parseJobInput(const std::string& text) {
  const std::size_t equals = text.rfind('=');
  JobInputArgument input{text.substr(0, equals), std::nullopt};
  if (equals != std::string::npos)
    input.name = text.substr(equals + 1);
  if (input.path.empty() || (input.name && input.name->empty()))
    refuse("--input \"" + text + "\" does not name a file or folder; give FILE, or FILE=NAME for another name");
  return input;
}

std::pair<std::string, std::uint64_t> parseResource(const std::string& text) {
  std::string_view name = text;
  const auto count = cutOff(name, '=');
  const auto number = count ? numberOf<std::uint64_t>(*count) : std::nullopt;
  if (name.empty() || !number)
    refuse("--resource \"" + text + "\" is not of the form NAME=N");
  return {std::string(name), *number};
}

void parseRetryReasons(const std::string& text, RetryArgument& retries) {
  std::string_view rest = text;
  for (bool more = true; more;) {
    std::string_view word = rest.substr(0, rest.find(','));
    more = word.size() < rest.size();
    rest.remove_prefix(std::min(word.size() + 1, rest.size()));
    const auto code = cutOff(word, ':');
    const auto number = code ? numberOf<std::int32_t>(*code) : std::nullopt;
    if (word == "exit" && (!code || number)) {
      retries.exit = true;
      if (number)
        retries.exitCodes.push_back(*number);
    } else if (!code && word == "signal") {
      retries.signal = true;
    } else if (!code && word == "memory") {
      retries.memory = true;
    } else if (!code && word == "time") {
      retries.time = true;
    } else if (!code && word == "lost") {
      retries.lost = true;
    } else {
      refuse("--retry-on \"" + text + "\" is not a list of exit, exit:CODE, signal, memory, time and lost");
    }
  }
}

void checkKey(const std::string& key) {
  constexpr std::size_t kLongest = 128;
  constexpr const char* kAllowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";
  if (key.empty() || key.size() > kLongest || key.find_first_not_of(kAllowed) != std::string::npos)
    refuse("--key \"" + key + "\" is not 1 to 128 letters, digits, \"-\", \"_\" and \".\"");
}

std::vector<std::string> optionsInScript(std::string_view script) {
  constexpr std::string_view kMark = "# zks:";
  std::vector<std::string> words;
  while (!script.empty()) {
    const std::string_view line = script.substr(0, script.find('\n'));
    script.remove_prefix(std::min(line.size() + 1, script.size()));
    if (line.starts_with(kMark))
      addWords(line.substr(kMark.size()), words);
    else if (!line.empty() && !line.starts_with('#'))
      break;
  }
  return words;
}

}  // namespace zks
