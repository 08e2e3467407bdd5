#include "cli/statusText.h"

#include <algorithm>

namespace zks {

std::string barText(double part, std::size_t columns) {
  constexpr std::size_t kFrame = 3;
  const std::size_t width = columns - kFrame;
  const auto filled = static_cast<std::size_t>(part * static_cast<double>(width));
  std::string bar(filled, '=');
  if (filled < width)
    bar += '>';
  bar.resize(width, ' ');
  return " [" + bar + "]";
}

std::string firstThatFits(const std::vector<std::string>& texts, std::size_t columns) {
  const auto fitting =
      std::find_if(texts.begin(), texts.end(), [&](const std::string& text) { return text.size() <= columns; });
  return fitting != texts.end() ? *fitting : texts.back().substr(0, columns);
}

}  // namespace zks
