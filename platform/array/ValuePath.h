// Where in a nested value a walk stands, for messages: "{2}(0).speed" is field "speed" of element 0 of the struct that
// is element 2 of a list. Counting begins at 0.
//
// A step lives on the walker's stack and costs nothing until somebody asks for the text.
// Ownership: a step borrows the step before it and the field name.
#pragma once

#include <cstddef>
#include <string>

class ValuePath {
 public:
  ValuePath() = default;  // the whole value
  ValuePath listElement(std::size_t index) const { return {this, index, nullptr}; }
  ValuePath field(std::size_t element, const std::string& name) const { return {this, element, &name}; }

  // How many lists and structs stand around the value here.
  std::size_t level() const noexcept { return level_; }
  std::string text() const;

 private:
  ValuePath(const ValuePath* outer, std::size_t index, const std::string* field)
      : outer_(outer), index_(index), field_(field), level_(outer->level_ + 1) {}
  std::string stepText() const;

  const ValuePath* outer_ = nullptr;
  std::size_t index_ = 0;
  const std::string* field_ = nullptr;
  std::size_t level_ = 0;
};
