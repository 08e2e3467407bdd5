#include "cli/formatValue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zks {
namespace {

qxArrayPtr numbers(const std::vector<std::size_t>& shape, qxClass cls = qxClass::Uint8, bool complex = false) {
  return qxCreateNumericArray(shape, cls, complex);
}

TEST(FormatValue, LargeArraysAreDescribedByClassAndShape) {
  EXPECT_EQ(formatValue(numbers({5, 5}).get(), 24), "<uint8 5x5>");
  EXPECT_EQ(formatValue(numbers({2, 3, 5}, qxClass::Float32, true).get(), 24), "<complex float32 2x3x5>");
  EXPECT_EQ(formatValue(numbers({1000000, 0}).get(), 24), "<uint8 1000000x0>");
}

TEST(FormatValue, ComplexNumbersShowBothParts) {
  const auto array = numbers({2, 1}, qxClass::Float64, true);
  const auto parts = qxGetWritableElements<double>(array.get());
  parts[0] = 1;
  parts[1] = 2.5;
  parts[2] = -1;
  parts[3] = -0.5;
  EXPECT_EQ(formatValue(array.get()), "[1+2.5i, -1-0.5i]");
}

TEST(FormatValue, StructsAreObjectsAndListsShowTheirElements) {
  const std::string fields[] = {"name", "none"};
  const std::size_t scalar[] = {1, 1};
  const auto value = qxCreateStructArray(scalar, fields);
  const std::size_t two[] = {2, 1};
  auto list = qxCreateListArray(two);
  qxSetListElement(list.get(), 0, qxCreateScalar(3));
  qxSetListElement(list.get(), 1, qxCreateStringUtf8("a \"b\"\n"));
  qxSetField(value.get(), 0, "name", std::move(list));
  EXPECT_EQ(formatValue(value.get()), R"({"name": [3, "a \"b\"\n"], "none": null})");
}

TEST(FormatValue, TextOfSeveralRowsIsShownByCharacter) {
  const std::size_t shape[] = {2, 2};
  const auto text = qxCreateNumericArray(shape, qxClass::Text);
  const auto units = qxGetWritableElements<char16_t>(text.get());
  for (std::size_t i = 0; i < 4; ++i)
    units[i] = static_cast<char16_t>(u'a' + i);
  EXPECT_EQ(formatValue(text.get()), R"([["a", "c"], ["b", "d"]])");
}

TEST(FormatValue, EmptyTextIsQuotedAndNullIsNull) {
  EXPECT_EQ(formatValue(qxCreateString(u"").get()), "\"\"");
  EXPECT_EQ(formatValue(nullptr), "null");
}

TEST(FormatValue, ControlCharactersNeverReachTheTerminal) {
  EXPECT_EQ(quotedText(std::string("\x1b[31m\0\x7f", 7)), "\"\\u001b[31m\\u0000\\u007f\"");
  EXPECT_EQ(quotedText("\u009B31m"), "\"\\xc2\\x9b31m\"");
}

}  // namespace
}  // namespace zks
