// A string of the class system: a name that is handed over once and kept.
#pragma once

#include <string>
#include <string_view>

namespace tova {

class COSString {
 public:
  explicit COSString(std::string_view utf8) : utf8_(utf8) {}

  const std::string& utf8() const noexcept { return utf8_; }

 private:
  std::string utf8_;
};

}  // namespace tova
