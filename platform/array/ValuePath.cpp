#include "platform/array/ValuePath.h"

std::string ValuePath::text() const {
  if (outer_ == nullptr)
    return "the top level";
  std::string text;
  for (const ValuePath* step = this; step->outer_ != nullptr; step = step->outer_)
    text.insert(0, step->stepText());
  return text;
}

std::string ValuePath::stepText() const {
  const std::string index = std::to_string(index_);
  return field_ == nullptr ? "{" + index + "}" : "(" + index + ")." + *field_;
}
