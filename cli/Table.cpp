#include "cli/Table.h"

#include <algorithm>
#include <utility>

#include "platform/errors/visibleText.h"

namespace zks {
namespace {

std::size_t widthOf(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

std::string padded(const std::string& text, std::size_t width, bool onTheLeft) {
  const std::string blanks(width - std::min(widthOf(text), width), ' ');
  return onTheLeft ? blanks + text : text + blanks;
}

std::string withoutBlanksAtTheEnd(std::string line) {
  line.erase(line.find_last_not_of(' ') + 1);
  return line + "\n";
}

}  // namespace

void Table::add(std::vector<std::string> cells) {
  for (std::string& cell : cells)
    cell = errors::visibleText(cell);
  cells.resize(columns_.size());
  rows_.push_back(std::move(cells));
}

std::string Table::text() const {
  constexpr const char* kGap = "  ";
  std::vector<std::size_t> widths;
  widths.reserve(columns_.size());
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    std::size_t width = widthOf(columns_[i].head);
    for (const auto& row : rows_)
      width = std::max(width, widthOf(row[i]));
    widths.push_back(width);
  }
  std::string text;
  const auto addLine = [&](const auto& cellAt) {
    std::string line;
    for (std::size_t i = 0; i < columns_.size(); ++i)
      line += (i == 0 ? "" : kGap) + padded(cellAt(i), widths[i], columns_[i].isNumber);
    text += withoutBlanksAtTheEnd(std::move(line));
  };
  addLine([&](std::size_t i) { return columns_[i].head; });
  for (const auto& row : rows_)
    addLine([&](std::size_t i) { return row[i]; });
  return text;
}

std::string labelled(const std::vector<std::pair<std::string, std::string>>& pairs) {
  std::size_t width = 0;
  for (const auto& [name, value] : pairs)
    width = std::max(width, widthOf(name));
  std::string text;
  for (const auto& [name, value] : pairs)
    text += withoutBlanksAtTheEnd(padded(name + ":", width + 3, false) + errors::visibleText(value));
  return text;
}

}  // namespace zks
