// The way from the top message down to a value, for error messages.
// Ownership: a step borrows its parent and its name. Steps live on the stack of the functions that go down, so they
//            cost nothing until an error prints them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace parallel::protobufencoding {

class FieldPath {
 public:
  static constexpr std::size_t kNoIndex = static_cast<std::size_t>(-1);

  explicit FieldPath(std::string_view messageType) : name_(messageType) {}
  FieldPath(const FieldPath& parent, std::string_view field) : parent_(&parent), name_(field) {}
  FieldPath(const FieldPath& parent, std::size_t index) : parent_(&parent), index_(index) {}
  FieldPath(const FieldPath&) = delete;
  FieldPath& operator=(const FieldPath&) = delete;

  // "pkg.Message.items[2].kind"; indices count from 0.
  std::string text() const;

 private:
  const FieldPath* parent_ = nullptr;
  std::string_view name_;
  std::size_t index_ = kNoIndex;
};

}  // namespace parallel::protobufencoding
