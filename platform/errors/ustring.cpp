#include "platform/errors/ustring.h"

#include <cstddef>
#include <cstdint>

namespace fl::i18n {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

constexpr bool isHighSurrogate(char32_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
constexpr bool isLowSurrogate(char32_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

// One decoded step: the code point, how many units it took, and whether they were well formed.
struct Step {
  char32_t codePoint;
  std::size_t units;
  bool wellFormed;
};

Step decodeUtf16(std::u16string_view text) {
  const char32_t first = text[0];
  if (!isHighSurrogate(first) && !isLowSurrogate(first))
    return {first, 1, true};
  if (isHighSurrogate(first) && text.size() > 1 && isLowSurrogate(text[1]))
    return {0x10000 + ((first - 0xD800) << 10) + (text[1] - 0xDC00U), 2, true};
  return {kReplacement, 1, false};
}

// The range that the second byte of a sequence may lie in (Unicode table 3-7), which keeps out overlong forms,
// surrogates and what lies past U+10FFFF; and the number of bytes of the sequence, 0 for a byte that starts none.
struct Lead {
  std::size_t length;
  std::uint8_t low = 0x80;
  std::uint8_t high = 0xBF;
};

constexpr Lead leadOf(std::uint8_t byte) {
  if (byte < 0x80)
    return {1};
  if (byte < 0xC2)
    return {0};
  if (byte < 0xE0)
    return {2};
  if (byte == 0xE0)
    return {3, 0xA0, 0xBF};
  if (byte == 0xED)
    return {3, 0x80, 0x9F};
  if (byte < 0xF0)
    return {3};
  if (byte == 0xF0)
    return {4, 0x90, 0xBF};
  if (byte < 0xF4)
    return {4};
  if (byte == 0xF4)
    return {4, 0x80, 0x8F};
  return {0};
}

// An ill-formed sequence is replaced as far as it was a prefix of a well-formed one, as Unicode recommends.
Step decodeUtf8(std::string_view text) {
  const auto byteAt = [text](std::size_t index) { return static_cast<std::uint8_t>(text[index]); };
  const Lead lead = leadOf(byteAt(0));
  if (lead.length == 0)
    return {kReplacement, 1, false};
  if (lead.length == 1)
    return {byteAt(0), 1, true};
  char32_t codePoint = byteAt(0) & (0x7FU >> lead.length);
  for (std::size_t index = 1; index < lead.length; ++index) {
    const std::uint8_t low = index == 1 ? lead.low : std::uint8_t{0x80};
    const std::uint8_t high = index == 1 ? lead.high : std::uint8_t{0xBF};
    if (index == text.size() || byteAt(index) < low || byteAt(index) > high)
      return {kReplacement, index, false};
    codePoint = (codePoint << 6) | (byteAt(index) & 0x3FU);
  }
  return {codePoint, lead.length, true};
}

void appendUtf8(std::string& text, char32_t codePoint) {
  const auto push = [&text](char32_t byte) { text.push_back(static_cast<char>(byte)); };
  if (codePoint < 0x80)
    return push(codePoint);
  if (codePoint < 0x800) {
    push(0xC0 | (codePoint >> 6));
  } else if (codePoint < 0x10000) {
    push(0xE0 | (codePoint >> 12));
    push(0x80 | ((codePoint >> 6) & 0x3F));
  } else {
    push(0xF0 | (codePoint >> 18));
    push(0x80 | ((codePoint >> 12) & 0x3F));
    push(0x80 | ((codePoint >> 6) & 0x3F));
  }
  push(0x80 | (codePoint & 0x3F));
}

void appendUtf16(ustring& text, char32_t codePoint) {
  if (codePoint < 0x10000)
    return text.push_back(static_cast<char16_t>(codePoint));
  text.push_back(static_cast<char16_t>(0xD800 + ((codePoint - 0x10000) >> 10)));
  text.push_back(static_cast<char16_t>(0xDC00 + ((codePoint - 0x10000) & 0x3FF)));
}

}  // namespace

std::string to_string(std::u16string_view utf16) {
  std::string text;
  text.reserve(utf16.size());
  while (!utf16.empty()) {
    const Step step = decodeUtf16(utf16);
    appendUtf8(text, step.codePoint);
    utf16.remove_prefix(step.units);
  }
  return text;
}

ustring to_ustring(std::string_view utf8) {
  ustring text;
  text.reserve(utf8.size());
  while (!utf8.empty()) {
    const Step step = decodeUtf8(utf8);
    appendUtf16(text, step.codePoint);
    utf8.remove_prefix(step.units);
  }
  return text;
}

bool isWellFormed(std::u16string_view utf16) noexcept {
  while (!utf16.empty()) {
    const Step step = decodeUtf16(utf16);
    if (!step.wellFormed)
      return false;
    utf16.remove_prefix(step.units);
  }
  return true;
}

bool isWellFormed(std::string_view utf8) noexcept {
  while (!utf8.empty()) {
    const Step step = decodeUtf8(utf8);
    if (!step.wellFormed)
      return false;
    utf8.remove_prefix(step.units);
  }
  return true;
}

}  // namespace fl::i18n
