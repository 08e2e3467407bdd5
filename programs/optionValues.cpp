#include "programs/optionValues.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

namespace programs {

namespace {

template <class Number>
std::optional<Number> numberOf(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

// Of a unit's letters after the number: K, M, ... E, with "B" or "iB" or without.
std::optional<int> exponentOf(std::string_view unit) {
  constexpr std::string_view letters = "kmgtpe";
  std::string lower;
  for (const char c : unit)
    lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower.empty() || lower == "b")
    return 0;
  const std::size_t at = letters.find(lower[0]);
  const std::string_view rest = std::string_view(lower).substr(1);
  if (at == std::string_view::npos || !(rest.empty() || rest == "b" || rest == "ib"))
    return std::nullopt;
  return static_cast<int>(at) + 1;
}

// What fits into the sizes of calls.
std::optional<std::uint64_t> bytesOf(std::string_view text) {
  constexpr std::uint64_t most = std::numeric_limits<std::int64_t>::max();
  const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  const auto number = numberOf<std::uint64_t>(text.substr(0, digits));
  const auto exponent = exponentOf(text.substr(digits));
  if (!number || !exponent || *number > most >> (10 * *exponent))
    return std::nullopt;
  return *number << (10 * *exponent);
}

}  // namespace

OptionCheck optionValue(std::function<bool(std::string&)> isFit, std::string wanted) {
  return [isFit = std::move(isFit), wanted = std::move(wanted)](std::string& text) {
    return isFit(text) ? std::string() : "\"" + text + "\" is not " + wanted;
  };
}

OptionCheck notEmpty() {
  return [](const std::string& text) {
    return std::string(text.empty() ? "its value is empty; leave the option out for the default" : "");
  };
}

OptionCheck secondsFromZero() {
  const auto isFit = [](const std::string& text) {
    const auto seconds = numberOf<double>(text);
    return seconds && *seconds >= 0 && *seconds <= 1e9;
  };
  return optionValue(isFit, "a number of seconds from 0 to 1000000000");
}

OptionCheck secondsAboveZero() {
  const auto isFit = [](const std::string& text) {
    const auto seconds = numberOf<double>(text);
    return seconds && *seconds > 0 && *seconds < 1e9;
  };
  return optionValue(isFit, "a number of seconds greater than 0 and below 1000000000");
}

OptionCheck wholeNumber(std::uint64_t least, std::uint64_t most) {
  const auto isFit = [least, most](const std::string& text) {
    const auto number = numberOf<std::uint64_t>(text);
    return number && *number >= least && *number <= most;
  };
  return optionValue(isFit, "a whole number from " + std::to_string(least) + " to " + std::to_string(most));
}

OptionCheck sizeInBytes(std::uint64_t least) {
  const auto isFit = [least](std::string& text) {
    const auto bytes = bytesOf(text);
    if (!bytes || *bytes < least)
      return false;
    text = std::to_string(*bytes);
    return true;
  };
  return optionValue(isFit, least == 0 ? "a number of bytes such as 1000000, 512M or 2G"
                                       : "a number of bytes above 0 such as 1000000, 512M or 2G");
}

}  // namespace programs
