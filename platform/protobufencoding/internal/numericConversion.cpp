#include "platform/protobufencoding/internal/numericConversion.h"

#include <array>
#include <charconv>

namespace parallel::protobufencoding {

std::string numberText(double number) {
  std::array<char, 32> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  return {digits.data(), end};
}

}  // namespace parallel::protobufencoding
