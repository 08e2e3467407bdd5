#include <charconv>

#include "platform/errors/Exception.h"

namespace errors_detail {

// One pass: braces inside an argument are text, never holes. A hole without an argument stays as it stands; the
// catalogue's generator and the constructor of Exception rule that out.
std::string fillTemplate(std::string_view text, std::span<const std::string> arguments) {
  std::string filled;
  while (!text.empty()) {
    const std::size_t open = text.find('{');
    filled.append(text.substr(0, open));
    if (open == std::string_view::npos)
      break;
    text.remove_prefix(open);
    std::size_t index = 0;
    const auto [end, error] = std::from_chars(text.data() + 1, text.data() + text.size(), index);
    const bool isHole = error == std::errc() && end != text.data() + text.size() && *end == '}';
    if (isHole && index < arguments.size()) {
      filled.append(arguments[index]);
      text.remove_prefix(static_cast<std::size_t>(end - text.data()) + 1);
    } else {
      filled.push_back('{');
      text.remove_prefix(1);
    }
  }
  return filled;
}

}  // namespace errors_detail
