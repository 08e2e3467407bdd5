#include "platform/interpreter/internal/replaceInside.h"

#include <deque>
#include <utility>

#include "platform/array/ValuePath.h"

namespace interpreter::internal {

namespace {

bool hasSlots(const qxArray* value) {
  return qxGetClass(value) == qxClass::List || qxGetClass(value) == qxClass::Struct;
}

std::size_t slotCount(const qxArray* value) {
  const std::size_t count = qxGetNumberOfElements(value);
  return qxGetClass(value) == qxClass::List ? count : count * qxGetFieldNames(value).size();
}

// Which element and which field of a struct a slot is.
std::pair<std::size_t, const std::string&> structSlot(const qxArray* value, std::size_t slot) {
  const auto names = qxGetFieldNames(value);
  return {slot / names.size(), names[slot % names.size()]};
}

const qxArray* slotValue(const qxArray* value, std::size_t slot) {
  if (qxGetClass(value) == qxClass::List)
    return qxGetListElement(value, slot);
  const auto [element, name] = structSlot(value, slot);
  return qxGetField(value, element, name);
}

void fillSlot(qxArray* value, std::size_t slot, qxArrayPtr content) {
  if (qxGetClass(value) == qxClass::List)
    return qxSetListElement(value, slot, std::move(content));
  const auto [element, name] = structSlot(value, slot);
  qxSetField(value, element, name, std::move(content));
}

}  // namespace

qxArrayPtr ReplacingWalk::run(const qxArray* value) {
  levels_.clear();
  qxArrayPtr result = visit(value);
  while (!levels_.empty()) {
    if (levels_.back().next < slotCount(levels_.back().original)) {
      visitNextSlot();
    } else {
      leaveLevel(result);
    }
  }
  return result;
}

qxArrayPtr ReplacingWalk::visit(const qxArray* value) {
  qxArrayPtr replacement = replace_(value);
  if (replacement == nullptr && hasSlots(value))
    levels_.push_back({value, nullptr});
  return replacement;
}

void ReplacingWalk::visitNextSlot() {
  Level& level = levels_.back();
  const qxArray* inner = slotValue(level.original, level.next);
  ++level.next;
  if (inner == nullptr)
    return;
  qxArrayPtr replacement = visit(inner);
  if (replacement != nullptr)
    fillCurrentSlot(std::move(replacement));
}

void ReplacingWalk::leaveLevel(qxArrayPtr& result) {
  qxArrayPtr rebuilt = std::move(levels_.back().rebuilt);
  levels_.pop_back();
  if (levels_.empty()) {
    result = std::move(rebuilt);
  } else if (rebuilt != nullptr) {
    fillCurrentSlot(std::move(rebuilt));
  }
}

void ReplacingWalk::fillCurrentSlot(qxArrayPtr value) {
  Level& level = levels_.back();
  if (level.rebuilt == nullptr)
    level.rebuilt = qxCreateSharedCopy(level.original);
  fillSlot(level.rebuilt.get(), level.next - 1, std::move(value));
}

std::string ReplacingWalk::path() const {
  std::deque<ValuePath> steps(1);  // a deque: each step points to the one before it
  for (const Level& level : levels_) {
    const std::size_t slot = level.next - 1;
    if (qxGetClass(level.original) == qxClass::List) {
      steps.push_back(steps.back().listElement(slot));
    } else {
      const auto [element, name] = structSlot(level.original, slot);
      steps.push_back(steps.back().field(element, name));
    }
  }
  return steps.back().text();
}

}  // namespace interpreter::internal
