// The walk that the save and load hooks share: visits a value and everything inside it, and rebuilds what changes.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"

namespace interpreter::internal {

// Lists and structs that nothing changes in are left as they are; the others are copied, and share with the original
// all that did not change. Not recursive, so values may be nested to any depth.
class ReplacingWalk {
 public:
  // What shall stand in the place of the value; null leaves it and visits what is inside it.
  using Replace = std::function<qxArrayPtr(const qxArray* value)>;

  explicit ReplacingWalk(Replace replace) : replace_(std::move(replace)) {}

  // The value with the replacements made, or null when there were none. What `replace` throws passes through.
  qxArrayPtr run(const qxArray* value);

  // Where the value stands that `replace` is asked about now.
  std::string path() const;

 private:
  // A list or struct whose elements are being visited.
  struct Level {
    const qxArray* original;
    qxArrayPtr rebuilt;    // once something inside has changed
    std::size_t next = 0;  // slot to visit; a struct's slots are its fields' values, element by element
  };

  // Null when the value is to be entered.
  qxArrayPtr visit(const qxArray* value);
  void visitNextSlot();
  void leaveLevel(qxArrayPtr& result);
  void fillCurrentSlot(qxArrayPtr value);

  Replace replace_;
  std::vector<Level> levels_;
};

}  // namespace interpreter::internal
