#include "scheduler/methods/Lines.h"

#include <algorithm>
#include <utility>

namespace parallel::scheduler::methods {

std::uint64_t countLines(std::string_view text) {
  const auto ended = static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
  return text.empty() || text.back() == '\n' ? ended : ended + 1;
}

Lines::Lines(std::string text) : text_(std::move(text)) {
  ends_.reserve(static_cast<std::size_t>(countLines(text_)));
  for (std::size_t begin = 0; begin < text_.size();) {
    const std::size_t end = std::min(text_.find('\n', begin), text_.size());
    ends_.push_back(static_cast<std::uint32_t>(end));
    begin = end + 1;
  }
}

std::string_view Lines::at(std::uint64_t number) const {
  const std::size_t begin = number == 0 ? 0 : ends_.at(static_cast<std::size_t>(number - 1)) + 1;
  return std::string_view(text_).substr(begin, ends_.at(static_cast<std::size_t>(number)) - begin);
}

}  // namespace parallel::scheduler::methods
