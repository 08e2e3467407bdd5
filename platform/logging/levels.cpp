#include <array>
#include <stdexcept>
#include <utility>

#include "platform/logging/sinks.h"

namespace parallel::logging {
namespace {

using foundation::log::level_t;

// From the gravest on; each word includes those above it.
constexpr std::array<std::pair<std::string_view, level_t>, 6> kWords{
    {{"off", 0}, {"error", kError}, {"warning", kWarning}, {"info", kInfo}, {"detail", kDetail}, {"trace", kTrace}}};

}  // namespace

level_t levelsFromWord(std::string_view word) {
  level_t mask = 0;
  for (const auto& [name, level] : kWords) {
    mask |= level;
    if (name == word)
      return mask;
  }
  std::string text = "\"" + std::string(word) + "\" is not a log level; the levels are:";
  for (const auto& [name, level] : kWords)
    text.append(" ").append(name);
  throw std::invalid_argument(text);
}

std::string_view levelName(level_t level) {
  for (const auto& [name, value] : kWords)
    if (value != 0 && value == level)
      return name;
  return "other";
}

}  // namespace parallel::logging
