#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <utility>
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

TEST(StructArray, AddingAnExistingFieldChangesNothing) {
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

// --- Fields by place, and names that structs share ---

TEST(StructArray, FieldByItsPlaceIsTheFieldOfThatName) {
  const qxArrayPtr array = qxCreateStructArray(Dimensions{2}, Names{"x", "y"});
  qxSetFieldAt(array.get(), 1, 0, qxCreateScalar(5));
  qxSetField(array.get(), 0, "y", qxCreateScalar(6));
  EXPECT_EQ(numberAt(array, 1, "x"), 5);
  EXPECT_EQ(qxGetFieldAt(array.get(), 0, 1), qxGetField(array.get(), 0, "y"));
  EXPECT_EQ(qxGetFieldAt(array.get(), 0, 0), nullptr);
  EXPECT_EQ(qxGetFieldAt(array.get(), 1, 1), nullptr);
}

TEST(StructArray, PlacePastTheFieldsOrTheElementsThrows) {
  const qxArrayPtr array = qxCreateStructArray(Dimensions{2}, Names{"x"});
  for (const auto& [element, field] : {std::pair<std::size_t, std::size_t>{0, 1}, {2, 0}}) {
    EXPECT_THROW(qxGetFieldAt(array.get(), element, field), Exception<host::array::IndexOutOfRange>);
    EXPECT_THROW(qxSetFieldAt(array.get(), element, field, nullptr), Exception<host::array::IndexOutOfRange>);
  }
  const qxArrayPtr list = qxCreateListArray({});
  EXPECT_THROW(qxGetFieldAt(list.get(), 0, 0), Exception<host::array::WrongClass>);
  EXPECT_THROW(qxSetFieldAt(list.get(), 0, 0, nullptr), Exception<host::array::WrongClass>);
}

TEST(StructArray, WriteByPlaceThroughOneShareKeepsTheOther) {
  const qxArrayPtr array = qxCreateStructArray({}, Names{"x"});
  qxSetFieldAt(array.get(), 0, 0, qxCreateScalar(1));
  const qxArrayPtr share = qxCreateSharedCopy(array.get());
  qxSetFieldAt(share.get(), 0, 0, qxCreateScalar(2));
  EXPECT_EQ(numberAt(array, 0, "x"), 1);
  EXPECT_EQ(numberAt(share, 0, "x"), 2);
}

TEST(StructNames, StructsMadeWithThemHaveTheSameNamesInMemory) {
  const qxFieldNamesPtr names = qxMakeFieldNames(Names{"x", "y"});
  const qxArrayPtr one = qxCreateStructWithNames({}, names);
  const qxArrayPtr other = qxCreateStructWithNames(Dimensions{3}, names);
  EXPECT_THAT(qxGetFieldNames(one.get()), ElementsAre("x", "y"));
  EXPECT_EQ(qxGetFieldNames(one.get()).data(), qxGetFieldNames(other.get()).data());
  EXPECT_EQ(qxGetNumberOfElements(other.get()), 3U);
  EXPECT_EQ(qxGetFieldAt(other.get(), 2, 1), nullptr);
}

TEST(StructNames, ValuesStandByField) {
  std::vector<qxArrayPtr> values;
  for (const double value : {1, 2, 3, 4, 5, 6})
    values.push_back(value == 4 ? nullptr : qxCreateScalar(value));
  const qxArrayPtr array = qxCreateStructWithNames(Dimensions{3}, qxMakeFieldNames(Names{"x", "y"}), std::move(values));
  EXPECT_EQ(*qxFindScalar<double>(qxGetField(array.get(), 2, "x")), 3);
  EXPECT_EQ(qxGetField(array.get(), 0, "y"), nullptr);
  EXPECT_EQ(*qxFindScalar<double>(qxGetField(array.get(), 1, "y")), 5);
}

TEST(StructNames, MoreOrFewerValuesThrow) {
  const qxFieldNamesPtr names = qxMakeFieldNames(Names{"x", "y"});
  for (const std::size_t count : {0, 1, 3})
    EXPECT_THROW(qxCreateStructWithNames({}, names, std::vector<qxArrayPtr>(count)),
                 Exception<host::array::WrongShape>);
  EXPECT_NO_THROW(qxCreateStructWithNames({}, names, std::vector<qxArrayPtr>(2)));
  EXPECT_NO_THROW(qxCreateStructWithNames(Dimensions{0, 5}, names, {}));
}

TEST(StructNames, FieldAddedToOneStructIsNotInTheOthers) {
  const qxFieldNamesPtr names = qxMakeFieldNames(Names{"x"});
  const qxArrayPtr one = qxCreateStructWithNames({}, names);
  const qxArrayPtr other = qxCreateStructWithNames({}, names);
  qxAddField(one.get(), "y");
  qxSetField(one.get(), 0, "z", qxCreateScalar(1));
  EXPECT_THAT(qxGetFieldNames(one.get()), ElementsAre("x", "y", "z"));
  EXPECT_THAT(qxGetFieldNames(other.get()), ElementsAre("x"));
  EXPECT_THAT(qxGetFieldNames(qxCreateStructWithNames({}, names).get()), ElementsAre("x"));
}

// The names of the first are its own by then, so that adding more changes them in place.
TEST(StructNames, FieldAddedAfterACopyIsNotInTheCopy) {
  const qxArrayPtr array = qxCreateStructArray({}, {});
  qxAddField(array.get(), "x");
  const qxArrayPtr copy = qxCreateSharedCopy(array.get());
  qxSetField(copy.get(), 0, "x", qxCreateScalar(1));
  qxAddField(array.get(), "y");
  qxAddField(copy.get(), "z");
  EXPECT_THAT(qxGetFieldNames(array.get()), ElementsAre("x", "y"));
  EXPECT_THAT(qxGetFieldNames(copy.get()), ElementsAre("x", "z"));
}

TEST(StructNames, OutliveTheirMaker) {
  qxFieldNamesPtr names = qxMakeFieldNames(Names{"x"});
  const qxArrayPtr array = qxCreateStructWithNames({}, names);
  names.reset();
  EXPECT_THAT(qxGetFieldNames(array.get()), ElementsAre("x"));
}

TEST(StructNames, BadNamesThrow) {
  EXPECT_THROW(qxMakeFieldNames(Names{"x", ""}), Exception<host::array::BadFieldName>);
  EXPECT_THROW(qxMakeFieldNames(Names{"x", "y", "x"}), Exception<host::array::BadFieldName>);
  EXPECT_THROW(qxMakeFieldNames(Names{"\xFF"}), Exception<host::array::BadFieldName>);
}

TEST(StructNames, EqualityGoesByNameNotByPlace) {
  const qxArrayPtr one = qxCreateStructWithNames({}, qxMakeFieldNames(Names{"x", "y"}));
  const qxArrayPtr other = qxCreateStructWithNames({}, qxMakeFieldNames(Names{"y", "x"}));
  qxSetFieldAt(one.get(), 0, 0, qxCreateScalar(1));
  qxSetFieldAt(other.get(), 0, 1, qxCreateScalar(1));
  EXPECT_TRUE(qxEqual(one.get(), other.get()));
  qxSetFieldAt(other.get(), 0, 0, qxCreateScalar(1));
  EXPECT_FALSE(qxEqual(one.get(), other.get()));
}
