#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

using testing::ElementsAre;
using testing::IsEmpty;
using Dimensions = std::vector<std::size_t>;
using Names = std::vector<std::string>;

namespace {

double numberAt(const qxArrayPtr& array, std::size_t element, std::string_view name) {
  return qxGetElements<double>(qxGetField(array.get(), element, name))[0];
}

}  // namespace

TEST(StructArray, FieldsStandInTheOrderInWhichTheyCame) {
  const qxArrayPtr array = qxCreateStructArray(Dimensions{2}, Names{"b", "a"});
  qxAddField(array.get(), "größe");
  qxSetField(array.get(), 0, "A", qxCreateScalar(1));
  EXPECT_THAT(qxGetFieldNames(array.get()), ElementsAre("b", "a", "größe", "A"));
  EXPECT_TRUE(qxHasField(array.get(), "a"));
  EXPECT_FALSE(qxHasField(array.get(), "c"));
  EXPECT_FALSE(qxHasField(array.get(), ""));
}

TEST(StructArray, EachElementHasItsOwnValues) {
  const qxArrayPtr array = qxCreateStructArray(Dimensions{2}, Names{"x"});
  qxSetField(array.get(), 1, "x", qxCreateScalar(5));
  EXPECT_EQ(qxGetField(array.get(), 0, "x"), nullptr);
  EXPECT_EQ(numberAt(array, 1, "x"), 5);
  qxSetField(array.get(), 1, "x", nullptr);
  EXPECT_EQ(qxGetField(array.get(), 1, "x"), nullptr);
}

TEST(StructArray, AddingAFieldThatIsThereChangesNothing) {
  const qxArrayPtr array = qxCreateStructArray({}, Names{"x"});
  qxSetField(array.get(), 0, "x", qxCreateScalar(5));
  qxAddField(array.get(), "x");
  EXPECT_THAT(qxGetFieldNames(array.get()), ElementsAre("x"));
  EXPECT_EQ(numberAt(array, 0, "x"), 5);
}

TEST(StructArray, MissingFieldThrowsNoSuchFieldNamingTheOthers) {
  const qxArrayPtr array = qxCreateStructArray({}, Names{"x", "y"});
  try {
    qxGetField(array.get(), 0, "z");
    FAIL() << "nothing was thrown";
  } catch (const Exception<host::array::NoSuchField>& error) {
    EXPECT_STREQ(error.what(), "The struct has no field \"z\"; its fields are: x, y.");
  }
}

TEST(StructArray, IndexPastTheEndThrowsAndAddsNoField) {
  const qxArrayPtr array = qxCreateStructArray(Dimensions{2}, Names{"x"});
  EXPECT_THROW(qxGetField(array.get(), 2, "x"), Exception<host::array::IndexOutOfRange>);
  EXPECT_THROW(qxSetField(array.get(), 2, "new", nullptr), Exception<host::array::IndexOutOfRange>);
  EXPECT_THAT(qxGetFieldNames(array.get()), ElementsAre("x"));
}

TEST(StructArray, BadFieldNamesThrowAndChangeNothing) {
  EXPECT_THROW(qxCreateStructArray({}, Names{"x", ""}), Exception<host::array::BadFieldName>);
  EXPECT_THROW(qxCreateStructArray({}, Names{"x", "y", "x"}), Exception<host::array::BadFieldName>);
  EXPECT_THROW(qxCreateStructArray({}, Names{"\xFF"}), Exception<host::array::BadFieldName>);
  const qxArrayPtr array = qxCreateStructArray({}, {});
  EXPECT_THROW(qxAddField(array.get(), ""), Exception<host::array::BadFieldName>);
  EXPECT_THROW(qxSetField(array.get(), 0, "\xC0\xAF", qxCreateScalar(1)), Exception<host::array::BadFieldName>);
  EXPECT_THAT(qxGetFieldNames(array.get()), IsEmpty());
}

TEST(StructArray, OtherClassesThrowWrongClass) {
  const qxArrayPtr list = qxCreateListArray({});
  EXPECT_THROW(qxGetFieldNames(list.get()), Exception<host::array::WrongClass>);
  EXPECT_THROW(qxHasField(list.get(), "x"), Exception<host::array::WrongClass>);
  EXPECT_THROW(qxAddField(list.get(), "x"), Exception<host::array::WrongClass>);
  EXPECT_THROW(qxGetField(list.get(), 0, "x"), Exception<host::array::WrongClass>);
  EXPECT_THROW(qxSetField(list.get(), 0, "x", nullptr), Exception<host::array::WrongClass>);
}

TEST(StructArray, EmptyStructsHaveFieldsToo) {
  const qxArrayPtr array = qxCreateStructArray(Dimensions{0, 3}, Names{"x"});
  EXPECT_EQ(qxGetNumberOfElements(array.get()), 0U);
  EXPECT_THAT(qxGetFieldNames(array.get()), ElementsAre("x"));
  EXPECT_THROW(qxGetField(array.get(), 0, "x"), Exception<host::array::IndexOutOfRange>);
}

// Past a handful of fields names are looked up another way.
TEST(StructArray, ManyFieldsAreAllFound) {
  const qxArrayPtr array = qxCreateStructArray({}, {});
  for (int i = 0; i < 100; ++i) {
    qxSetField(array.get(), 0, "f" + std::to_string(i), qxCreateScalar(i));
    for (int k = 0; k <= i; ++k)
      ASSERT_EQ(numberAt(array, 0, "f" + std::to_string(k)), k);
    ASSERT_FALSE(qxHasField(array.get(), "f" + std::to_string(i + 1)));
  }
  const qxArrayPtr copy = qxCreateSharedCopy(array.get());
  qxSetField(copy.get(), 0, "f99", qxCreateScalar(-1));
  EXPECT_EQ(numberAt(array, 0, "f99"), 99);
  EXPECT_EQ(numberAt(copy, 0, "f99"), -1);
  EXPECT_EQ(numberAt(copy, 0, "f0"), 0);
}

TEST(StructArray, NameFromTheArrayItselfCanBeUsedToWrite) {
  qxArrayPtr array = qxCreateStructArray({}, Names{"a field name that is longer than a short string"});
  qxArrayPtr other = qxCreateSharedCopy(array.get());
  const std::string_view name = qxGetFieldNames(array.get())[0];
  other.reset();
  qxArrayPtr sharing = qxCreateSharedCopy(array.get());
  qxSetField(array.get(), 0, name, qxCreateScalar(1));
  EXPECT_EQ(numberAt(array, 0, "a field name that is longer than a short string"), 1);
  EXPECT_EQ(qxGetField(sharing.get(), 0, "a field name that is longer than a short string"), nullptr);
}
