// Columns for people: as wide as their widest cell, two blanks apart, no blanks at the end of a line.
//
// Cells are shown as visible text: nothing in a name can move the cursor. Widths are counted in code points.
#pragma once

#include <string>
#include <vector>

namespace zks {

class Table {
 public:
  struct Column {
    std::string head;
    bool isNumber = false;  // right-aligned
  };

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  // As many cells as columns.
  void add(std::vector<std::string> cells);
  bool empty() const noexcept { return rows_.empty(); }

  // With the heads in the first line.
  std::string text() const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

// "name:    value" for each pair, the values below each other.
std::string labelled(const std::vector<std::pair<std::string, std::string>>& pairs);

}  // namespace zks
