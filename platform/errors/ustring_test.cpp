#include "platform/errors/ustring.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <cstdint>
#include <utility>
#include <vector>

namespace {

using fl::i18n::isWellFormed;
using fl::i18n::to_string;
using fl::i18n::to_ustring;

const std::vector<std::pair<std::u16string, std::string>> kSamples = {
    {u"", ""},
    {u"plain", "plain"},
    {u"\u007F\u0080\u07FF\u0800", "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80"},
    {u"\uD7FF\uE000\uFFFF", "\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"},
    {u"\U00010000\U0010FFFF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
    {std::u16string(u"a\0b", 3), std::string("a\0b", 3)},
};

TEST(Ustring, SamplesConvertBothWaysAndAreWellFormed) {
  for (const auto& [utf16, utf8] : kSamples) {
    EXPECT_EQ(to_string(utf16), utf8);
    EXPECT_EQ(to_ustring(utf8), utf16);
    EXPECT_TRUE(isWellFormed(utf16));
    EXPECT_TRUE(isWellFormed(utf8));
  }
}

TEST(Ustring, UnpairedSurrogatesBecomeReplacementCharacters) {
  const std::string mark = "\xEF\xBF\xBD";
  const std::vector<std::pair<std::u16string, std::string>> cases = {
      {{0xD800}, mark},
      {{0xDC00}, mark},
      {{0xD800, 'x'}, mark + "x"},
      {{0xD800, 0xD800, 0xDC00}, mark + "\xF0\x90\x80\x80"},
      {{0xDC00, 0xD800}, mark + mark},
  };
  for (const auto& [utf16, utf8] : cases) {
    EXPECT_EQ(to_string(utf16), utf8);
    EXPECT_FALSE(isWellFormed(utf16));
  }
}

TEST(Ustring, IllFormedUtf8BecomesReplacementCharacters) {
  const std::vector<std::pair<std::string, std::u16string>> cases = {
      {"\x80", u"\uFFFD"},                                // a continuation byte alone
      {"\xC0\xAF", u"\uFFFD\uFFFD"},                      // overlong, two bytes
      {"\xE0\x9F\xBF", u"\uFFFD\uFFFD\uFFFD"},            // overlong, three bytes
      {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},            // a surrogate
      {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // past U+10FFFF
      {"\xF5", u"\uFFFD"},
      {"\xFF", u"\uFFFD"},
      {"\xE2\x82", u"\uFFFD"},    // cut short at the end
      {"\xE2\x82z", u"\uFFFDz"},  // cut short by another character
      {"\xF0\x90\x80", u"\uFFFD"},
  };
  for (const auto& [utf8, utf16] : cases) {
    EXPECT_EQ(to_ustring(utf8), utf16);
    EXPECT_FALSE(isWellFormed(utf8));
  }
}

TEST(Ustring, EveryCodePointSurvivesBothConversions) {
  for (char32_t codePoint = 0; codePoint <= 0x10FFFF; ++codePoint) {
    if (codePoint >= 0xD800 && codePoint <= 0xDFFF)
      continue;
    std::u16string utf16;
    if (codePoint < 0x10000) {
      utf16 = {static_cast<char16_t>(codePoint)};
    } else {
      utf16 = {static_cast<char16_t>(0xD7C0 + (codePoint >> 10)), static_cast<char16_t>(0xDC00 + (codePoint & 0x3FF))};
    }
    const std::string utf8 = to_string(utf16);
    ASSERT_TRUE(isWellFormed(utf8)) << static_cast<unsigned>(codePoint);
    ASSERT_EQ(to_ustring(utf8), utf16) << static_cast<unsigned>(codePoint);
  }
}

RC_GTEST_PROP(Ustring, AnyBytesConvertToWellFormedText, (const std::vector<unsigned char>& bytes)) {
  const std::string input(bytes.begin(), bytes.end());
  const std::u16string utf16 = to_ustring(input);
  RC_ASSERT(isWellFormed(utf16));
  RC_ASSERT(isWellFormed(to_string(utf16)));
  RC_ASSERT(isWellFormed(input) == (to_string(utf16) == input));
}

RC_GTEST_PROP(Ustring, AnyUnitsConvertToWellFormedText, (const std::vector<std::uint16_t>& units)) {
  const std::u16string input(units.begin(), units.end());
  const std::string utf8 = to_string(input);
  RC_ASSERT(isWellFormed(utf8));
  RC_ASSERT(isWellFormed(input) == (to_ustring(utf8) == input));
}

}  // namespace
