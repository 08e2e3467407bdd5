#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "platform/array/qxArray.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

using Dimensions = std::vector<std::size_t>;

namespace {

double numberAt(const qxArrayPtr& list, std::size_t index) {
  return qxGetElements<double>(qxGetListElement(list.get(), index))[0];
}

}  // namespace

TEST(ListArray, ElementsAreUnsetUntilSet) {
  const qxArrayPtr list = qxCreateListArray(Dimensions{2, 2});
  for (std::size_t i = 0; i < 4; ++i)
    EXPECT_EQ(qxGetListElement(list.get(), i), nullptr);
  qxSetListElement(list.get(), 2, qxCreateScalar(7));
  EXPECT_EQ(numberAt(list, 2), 7);
  EXPECT_EQ(qxGetListElement(list.get(), 3), nullptr);
}

TEST(ListArray, SettingReplacesAndNullUnsets) {
  const qxArrayPtr list = qxCreateListArray({});
  qxSetListElement(list.get(), 0, qxCreateScalar(1));
  qxSetListElement(list.get(), 0, qxCreateScalar(2));
  EXPECT_EQ(numberAt(list, 0), 2);
  qxSetListElement(list.get(), 0, nullptr);
  EXPECT_EQ(qxGetListElement(list.get(), 0), nullptr);
}

TEST(ListArray, IndexPastTheEndThrowsNamingIndexAndCount) {
  const qxArrayPtr list = qxCreateListArray(Dimensions{3});
  EXPECT_THROW(qxSetListElement(list.get(), 3, qxCreateScalar(1)), Exception<host::array::IndexOutOfRange>);
  try {
    qxGetListElement(list.get(), 3);
    FAIL() << "nothing was thrown";
  } catch (const Exception<host::array::IndexOutOfRange>& error) {
    EXPECT_STREQ(error.what(), "Element 3 was requested from an array of 3 elements.");
  }
}

TEST(ListArray, OtherClassesThrowWrongClass) {
  const qxArrayPtr scalar = qxCreateScalar(1);
  EXPECT_THROW(qxGetListElement(scalar.get(), 0), Exception<host::array::WrongClass>);
  EXPECT_THROW(qxSetListElement(scalar.get(), 0, nullptr), Exception<host::array::WrongClass>);
  EXPECT_THROW(qxGetElements<double>(qxCreateListArray({}).get()), Exception<host::array::WrongClass>);
}

TEST(ListArray, AListCanHoldAShareOfItself) {
  const qxArrayPtr list = qxCreateListArray({});
  qxSetListElement(list.get(), 0, qxCreateSharedCopy(list.get()));
  const qxArray* inner = qxGetListElement(list.get(), 0);
  ASSERT_NE(inner, nullptr);
  EXPECT_EQ(qxGetListElement(inner, 0), nullptr);  // what it was before
}

TEST(ListArray, ReplaceMakesTheShareAnotherValue) {
  const qxArrayPtr list = qxCreateListArray(Dimensions{2});
  const qxArrayPtr share = qxCreateSharedCopy(list.get());
  qxReplace(list.get(), qxCreateString(u"new"));
  EXPECT_EQ(qxGetString(list.get()), u"new");
  EXPECT_EQ(qxGetClass(share.get()), qxClass::List);
}

// --- Deep nesting ---

namespace {

qxArrayPtr nestedLists(std::size_t levels) {
  qxArrayPtr value = qxCreateScalar(1);
  for (std::size_t i = 0; i < levels; ++i) {
    qxArrayPtr list = qxCreateListArray(Dimensions{2});
    qxSetListElement(list.get(), 1, std::move(value));
    value = std::move(list);
  }
  return value;
}

qxArrayPtr nestedStructs(std::size_t levels) {
  qxArrayPtr value = qxCreateScalar(1);
  for (std::size_t i = 0; i < levels; ++i) {
    qxArrayPtr outer = qxCreateStructArray({}, {});
    qxSetField(outer.get(), 0, "inner", std::move(value));
    value = std::move(outer);
  }
  return value;
}

constexpr std::size_t kDeep = 300000;

}  // namespace

TEST(DeepNesting, ListsAreDestroyedWithoutRecursion) {
  nestedLists(kDeep).reset();
}

TEST(DeepNesting, StructsAreDestroyedWithoutRecursion) {
  nestedStructs(kDeep).reset();
}

TEST(DeepNesting, EqualityNeedsNoRecursion) {
  EXPECT_TRUE(qxEqual(nestedLists(kDeep).get(), nestedLists(kDeep).get()));
  EXPECT_FALSE(qxEqual(nestedLists(kDeep).get(), nestedLists(kDeep + 1).get()));
  EXPECT_TRUE(qxEqual(nestedStructs(kDeep).get(), nestedStructs(kDeep).get()));
}

TEST(DeepNesting, ReplacingTheInsideDestroysTheRestWithoutRecursion) {
  const qxArrayPtr list = qxCreateListArray({});
  qxSetListElement(list.get(), 0, nestedLists(kDeep));
  qxSetListElement(list.get(), 0, nullptr);
  EXPECT_EQ(qxGetListElement(list.get(), 0), nullptr);
}

TEST(DeepNesting, PartThatIsSharedElsewhereSurvives) {
  qxArrayPtr inner = nestedLists(1000);
  const qxArrayPtr kept = qxCreateSharedCopy(inner.get());
  qxArrayPtr outer = qxCreateListArray({});
  qxSetListElement(outer.get(), 0, std::move(inner));
  outer.reset();
  EXPECT_TRUE(qxEqual(kept.get(), nestedLists(1000).get()));
}
