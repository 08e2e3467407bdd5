#include "platform/errors/visibleText.h"

#include <gtest/gtest.h>

#include <string>

namespace errors {
namespace {

using namespace std::string_literals;

TEST(VisibleText, PlainTextStaysAsItIs) {
  for (const char* text : {"", "plain", "a \"b\" \\ 'c'", "\u00E9\u4E2D\U0001F600", "\u00A0\uFFFD"})
    EXPECT_EQ(visibleText(text), text);
}

TEST(VisibleText, ControlCharactersAreShownByTheirBytes) {
  EXPECT_EQ(visibleText("two\nlines\r\n"), "two\\x0alines\\x0d\\x0a");
  EXPECT_EQ(visibleText("\x1B[2J"), "\\x1b[2J");
  EXPECT_EQ(visibleText("a\0b\x7F"s), "a\\x00b\\x7f");
  EXPECT_EQ(visibleText("\u009B31m"), "\\xc2\\x9b31m");  // a control sequence begins so, too
}

TEST(VisibleText, CharactersThatTurnOrEndALineAreShownByTheirBytes) {
  EXPECT_EQ(visibleText("\u202Etxt"), "\\xe2\\x80\\xaetxt");
  EXPECT_EQ(visibleText("\u2028"), "\\xe2\\x80\\xa8");
  EXPECT_EQ(visibleText("\u2066"), "\\xe2\\x81\\xa6");
}

TEST(VisibleText, BytesThatAreNotUtf8AreShownByTheirNumbers) {
  EXPECT_EQ(visibleText("\xFF"), "\\xff");
  EXPECT_EQ(visibleText("\x9B\x41"), "\\x9bA");
  EXPECT_EQ(visibleText("\xC0\x8A"), "\\xc0\\x8a");           // overlong newline
  EXPECT_EQ(visibleText("\xE0\x80\x8A"), "\\xe0\\x80\\x8a");  // the same in three
  EXPECT_EQ(visibleText("\xF0\x80\x80\x8A"), "\\xf0\\x80\\x80\\x8a");
  EXPECT_EQ(visibleText("\xED\xA0\x80"), "\\xed\\xa0\\x80");  // half of a surrogate pair
  EXPECT_EQ(visibleText("\xF4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
  EXPECT_EQ(visibleText("\xE4\xB8"), "\\xe4\\xb8");  // cut short
}

// All pairs of bytes: nothing below a space comes out, nor what is not UTF-8.
TEST(VisibleText, NothingOfAnyTwoBytesBreaksALine) {
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string pair{static_cast<char>(first), static_cast<char>(second)};
      const std::string shown = visibleText(pair);
      for (const char c : shown)
        ASSERT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) << first << " " << second;
      ASSERT_EQ(visibleText(shown), shown) << first << " " << second;
    }
  }
}

TEST(VisibleText, LongTextIsCutBetweenCharactersWithItsLength) {
  EXPECT_EQ(visibleText("abcd", 4), "abcd");
  EXPECT_EQ(visibleText("abcde", 4), "abcd[... 5 bytes in all]");
  EXPECT_EQ(visibleText("abc\u00E9", 4), "abc[... 5 bytes in all]");
  EXPECT_EQ(visibleText("\n\n\n", 2), "\\x0a\\x0a[... 3 bytes in all]");
  EXPECT_LT(visibleText(std::string(60'000'000, '\n')).size(), 5 * kShownTextBytes);
}

TEST(VisibleText, NamesAreQuotedAndCutSooner) {
  EXPECT_EQ(inQuotes("a\nb"), "\"a\\x0ab\"");
  EXPECT_EQ(inQuotes(std::string(300, 'x')), "\"" + std::string(256, 'x') + "[... 300 bytes in all]\"");
}

}  // namespace
}  // namespace errors
