#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/array/testing/goldenArrays.h"

using Dimensions = std::vector<std::size_t>;

namespace {

bool equal(const qxArrayPtr& left, const qxArrayPtr& right) {
  const bool result = qxEqual(left.get(), right.get());
  EXPECT_EQ(qxEqual(right.get(), left.get()), result) << "not symmetric";
  return result;
}

qxArrayPtr pointStruct(const std::vector<std::string>& names) {
  qxArrayPtr array = qxCreateStructArray({}, names);
  for (const std::string& name : names)
    qxSetField(array.get(), 0, name, qxCreateStringUtf8(name));
  return array;
}

qxArrayPtr listOf(qxArrayPtr element) {
  qxArrayPtr list = qxCreateListArray({});
  qxSetListElement(list.get(), 0, std::move(element));
  return list;
}

}  // namespace

TEST(Equal, ExamplesEqualThemselvesAndNoOther) {
  const auto left = array_testing::documentedArrays();
  const auto right = array_testing::documentedArrays();
  for (const auto& [leftName, leftArray] : left) {
    for (const auto& [rightName, rightArray] : right) {
      EXPECT_EQ(equal(leftArray, rightArray), leftName == rightName) << leftName << " and " << rightName;
    }
  }
}

TEST(Equal, EveryElementByteCounts) {
  const qxArrayPtr original = qxCreateNumericArray(Dimensions{3}, qxClass::Int32);
  for (std::size_t i = 0; i < qxGetDataBytes(original.get()); ++i) {
    const qxArrayPtr changed = qxCreateSharedCopy(original.get());
    static_cast<unsigned char*>(qxGetWritableData(changed.get()))[i] = 1;
    EXPECT_FALSE(equal(original, changed)) << i;
  }
}

TEST(Equal, NanEqualsItselfAndZerosOfOtherSignDiffer) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(equal(qxCreateScalar(nan), qxCreateScalar(nan)));
  EXPECT_FALSE(equal(qxCreateScalar(0.0), qxCreateScalar(-0.0)));
}

TEST(Equal, ShapeClassAndPartsCount) {
  const auto make = [](const Dimensions& dimensions, qxClass cls, bool complex = false) {
    return qxCreateNumericArray(dimensions, cls, complex);
  };
  EXPECT_FALSE(equal(make({2, 3}, qxClass::Uint8), make({3, 2}, qxClass::Uint8)));
  EXPECT_FALSE(equal(make({2, 3}, qxClass::Uint8), make({2, 3, 1, 2}, qxClass::Uint8)));
  EXPECT_FALSE(equal(make({0, 3}, qxClass::Uint8), make({3, 0}, qxClass::Uint8)));
  EXPECT_FALSE(equal(make({2, 3}, qxClass::Uint8), make({2, 3}, qxClass::Int8)));
  EXPECT_FALSE(equal(make({2, 3}, qxClass::Uint8), make({2, 3}, qxClass::Boolean)));
  EXPECT_FALSE(equal(make({0, 0}, qxClass::Float64), make({0, 0}, qxClass::Float64, true)));
  EXPECT_FALSE(equal(make({2, 1}, qxClass::Float64), make({1, 1}, qxClass::Float64, true)));
  EXPECT_TRUE(equal(make({2, 1, 1}, qxClass::Uint8), make({2}, qxClass::Uint8)));
}

TEST(Equal, ReshapedShareDiffers) {
  const qxArrayPtr array = qxCreateNumericArray(Dimensions{2, 3}, qxClass::Uint8);
  const qxArrayPtr share = qxCreateSharedCopy(array.get());
  EXPECT_TRUE(equal(array, share));
  qxReshape(share.get(), Dimensions{3, 2});
  EXPECT_FALSE(equal(array, share));
}

TEST(Equal, FieldsMayStandInAnyOrder) {
  EXPECT_TRUE(equal(pointStruct({"x", "y", "z"}), pointStruct({"z", "x", "y"})));
  EXPECT_FALSE(equal(pointStruct({"x", "y"}), pointStruct({"x", "z"})));
  EXPECT_FALSE(equal(pointStruct({"x", "y"}), pointStruct({"x"})));
  EXPECT_FALSE(equal(pointStruct({"x"}), pointStruct({})));
}

TEST(Equal, UnsetElementsEqualEachOtherOnly) {
  EXPECT_TRUE(equal(qxCreateListArray({}), qxCreateListArray({})));
  EXPECT_FALSE(equal(qxCreateListArray({}), listOf(qxCreateString(u""))));
  const std::vector<std::string> names{"x"};
  qxArrayPtr set = qxCreateStructArray({}, names);
  qxSetField(set.get(), 0, "x", qxCreateString(u""));
  EXPECT_FALSE(equal(qxCreateStructArray({}, names), set));
}

TEST(Equal, DifferencesFarInsideAreFound) {
  EXPECT_TRUE(equal(listOf(listOf(pointStruct({"x"}))), listOf(listOf(pointStruct({"x"})))));
  qxArrayPtr other = pointStruct({"x"});
  qxSetField(other.get(), 0, "x", qxCreateString(u"y"));
  EXPECT_FALSE(equal(listOf(listOf(pointStruct({"x"}))), listOf(listOf(std::move(other)))));
}

TEST(Equal, ObjectsAreEqualWhenTheyHoldTheSameNativeObject) {
  const auto native = std::make_shared<int>(1);
  EXPECT_TRUE(equal(qxCreateObject("c", native), qxCreateObject("c", native)));
  EXPECT_FALSE(equal(qxCreateObject("c", native), qxCreateObject("c", std::make_shared<int>(1))));
}
