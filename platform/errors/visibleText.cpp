#include "platform/errors/visibleText.h"

#include <algorithm>

namespace errors {

namespace {

constexpr unsigned char kFirstPrintable = 0x20;
constexpr unsigned char kDelete = 0x7F;
constexpr char32_t kLastOfC1 = 0x9F;

// Bytes of the well-formed UTF-8 sequence that the text begins with, 0 if there is none. Puts its character.
std::size_t takeCharacter(std::string_view text, char32_t& character) {
  const auto byteAt = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned char lead = byteAt(0);
  const std::size_t length = lead < 0x80                    ? 1
                             : lead >= 0xC2 && lead <= 0xDF ? 2
                             : lead >= 0xE0 && lead <= 0xEF ? 3
                             : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                            : 0;
  if (length == 0 || text.size() < length)
    return 0;
  character = length == 1 ? lead : lead & (0x7FU >> length);
  for (std::size_t at = 1; at < length; ++at) {
    if ((byteAt(at) & 0xC0U) != 0x80U)
      return 0;
    character = character << 6 | (byteAt(at) & 0x3FU);
  }
  const bool isOverlong = (length == 3 && character < 0x800) || (length == 4 && character < 0x10000);
  const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
  return isOverlong || isSurrogate || character > 0x10FFFF ? 0 : length;
}

bool isShownAsItIs(char32_t character) {
  const bool isControl = character < kFirstPrintable || (character >= kDelete && character <= kLastOfC1);
  const bool endsALine = character == 0x2028 || character == 0x2029;
  const bool turns = (character >= 0x202A && character <= 0x202E) || (character >= 0x2066 && character <= 0x2069) ||
                     character == 0x200E || character == 0x200F || character == 0x061C;
  return !isControl && !endsALine && !turns;
}

void appendEscaped(std::string_view bytes, std::string& to) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    to.append("\\x").append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 0xF]);
  }
}

}  // namespace

std::string visibleText(std::string_view text, std::size_t most) {
  std::string shown;
  shown.reserve(std::min(text.size(), most));
  std::string_view rest = text;
  while (!rest.empty()) {
    char32_t character = 0;
    const std::size_t wellFormed = takeCharacter(rest, character);
    const std::size_t length = std::max<std::size_t>(wellFormed, 1);
    if (text.size() - rest.size() + length > most)
      return shown + "[... " + std::to_string(text.size()) + " bytes in all]";
    if (wellFormed != 0 && isShownAsItIs(character))
      shown += rest.substr(0, length);
    else
      appendEscaped(rest.substr(0, length), shown);
    rest.remove_prefix(length);
  }
  return shown;
}

std::string inQuotes(std::string_view name, std::size_t most) {
  return "\"" + visibleText(name, most) + "\"";
}

}  // namespace errors
