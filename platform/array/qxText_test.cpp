#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "platform/array/qxArray.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

using testing::ElementsAre;
using Dimensions = std::vector<std::size_t>;

TEST(TextArray, IsARowOfCodeUnits) {
  const qxArrayPtr text = qxCreateString(u"Añ😀");
  EXPECT_EQ(qxGetClass(text.get()), qxClass::Text);
  EXPECT_THAT(qxGetDimensions(text.get()), ElementsAre(1, 4));
  EXPECT_EQ(qxGetString(text.get()), u"Añ😀");
  EXPECT_EQ(qxGetStringUtf8(text.get()), "Añ😀");
}

TEST(TextArray, EmptyTextIsZeroByZero) {
  EXPECT_THAT(qxGetDimensions(qxCreateString(u"").get()), ElementsAre(0, 0));
  EXPECT_THAT(qxGetDimensions(qxCreateStringUtf8("").get()), ElementsAre(0, 0));
  EXPECT_EQ(qxGetString(qxCreateString(u"").get()), u"");
}

TEST(TextArray, NulUnitsAreKept) {
  const std::u16string_view text(u"a\0b", 3);
  EXPECT_EQ(qxGetString(qxCreateString(text).get()), text);
}

TEST(TextArray, IllFormedUtf8BecomesReplacementCharacters) {
  EXPECT_EQ(qxGetString(qxCreateStringUtf8("a\xFFz").get()), u"a\uFFFDz");
}

TEST(TextArray, UnpairedSurrogateBecomesReplacementCharacterInUtf8) {
  const std::u16string text(1, u'\xD800');
  const qxArrayPtr array = qxCreateString(text);
  EXPECT_EQ(qxGetString(array.get()), text);
  EXPECT_EQ(qxGetStringUtf8(array.get()), "\uFFFD");
}

TEST(TextArray, MatrixReadsInColumnMajorOrder) {
  const qxArrayPtr text = qxCreateString(u"abcdef");
  qxReshape(text.get(), Dimensions{2, 3});
  EXPECT_EQ(qxGetString(text.get()), u"abcdef");
}

TEST(TextArray, StringOfAnotherClassThrowsWrongClass) {
  EXPECT_THROW(qxGetString(qxCreateScalar(1).get()), Exception<host::array::WrongClass>);
  EXPECT_THROW(qxGetStringUtf8(qxCreateNumericArray({}, qxClass::Uint16).get()), Exception<host::array::WrongClass>);
  EXPECT_THROW(qxGetString(qxCreateListArray({}).get()), Exception<host::array::WrongClass>);
}
