#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

using testing::ElementsAre;
using Dimensions = std::vector<std::size_t>;
using OutOfMemory = Exception<host::memory::OutOfMemory, std::bad_alloc>;

namespace {

constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max();

qxArrayPtr uint8Array(const Dimensions& dimensions) {
  return qxCreateNumericArray(dimensions, qxClass::Uint8);
}

Dimensions dimensionsOf(const qxArrayPtr& array) {
  const qxDimensions all = qxGetDimensions(array.get());
  return {all.begin(), all.end()};
}

}  // namespace

TEST(Shape, MissingDimensionsAreOne) {
  EXPECT_THAT(dimensionsOf(uint8Array({3})), ElementsAre(3, 1));
  EXPECT_THAT(dimensionsOf(uint8Array({})), ElementsAre(1, 1));
}

TEST(Shape, TrailingOnesPastTheSecondAreDropped) {
  EXPECT_THAT(dimensionsOf(uint8Array({2, 1, 1, 1})), ElementsAre(2, 1));
  EXPECT_THAT(dimensionsOf(uint8Array({1, 1, 1})), ElementsAre(1, 1));
  EXPECT_THAT(dimensionsOf(uint8Array({2, 1, 3, 1})), ElementsAre(2, 1, 3));
  EXPECT_THAT(dimensionsOf(uint8Array({1, 1, 2})), ElementsAre(1, 1, 2));
}

TEST(Shape, ZeroDimensionsStay) {
  EXPECT_THAT(dimensionsOf(uint8Array({0, 0})), ElementsAre(0, 0));
  EXPECT_THAT(dimensionsOf(uint8Array({0, 3, 0})), ElementsAre(0, 3, 0));
  EXPECT_EQ(qxGetNumberOfElements(uint8Array({5, 0}).get()), 0U);
}

TEST(Shape, ElementsAreTheProductOfTheDimensions) {
  EXPECT_EQ(qxGetNumberOfElements(uint8Array({2, 3, 4}).get()), 24U);
  EXPECT_EQ(qxGetNumberOfElements(uint8Array({}).get()), 1U);
}

TEST(Shape, BytesCountBothPartsOfComplexElements) {
  const qxArrayPtr real = qxCreateNumericArray(Dimensions{2, 3}, qxClass::Float32);
  EXPECT_EQ(qxGetElementBytes(real.get()), 4U);
  EXPECT_EQ(qxGetDataBytes(real.get()), 24U);
  const qxArrayPtr complex = qxCreateNumericArray(Dimensions{2, 3}, qxClass::Float32, true);
  EXPECT_EQ(qxGetElementBytes(complex.get()), 8U);
  EXPECT_EQ(qxGetDataBytes(complex.get()), 48U);
  EXPECT_TRUE(qxIsComplex(complex.get()));
  EXPECT_FALSE(qxIsComplex(real.get()));
}

TEST(Shape, ListStructAndObjectHaveNoElementBytes) {
  const qxArrayPtr list = qxCreateListArray(Dimensions{2, 3});
  const qxArrayPtr record = qxCreateStructArray(Dimensions{2, 3}, {});
  const qxArrayPtr object = qxCreateObject("c", nullptr);
  for (const qxArray* array : {list.get(), record.get(), object.get()}) {
    EXPECT_EQ(qxGetElementBytes(array), 0U);
    EXPECT_EQ(qxGetDataBytes(array), 0U);
    EXPECT_EQ(qxGetData(array), nullptr);
    EXPECT_EQ(qxClassBytes(qxGetClass(array)), 0U);
  }
  EXPECT_EQ(qxGetWritableData(list.get()), nullptr);
}

TEST(Shape, ClassNamesAndBytes) {
  const std::vector<std::pair<std::string_view, std::size_t>> wanted{
      {"float64", 8}, {"float32", 4}, {"int8", 1},   {"uint8", 1},  {"int16", 2},
      {"uint16", 2},  {"int32", 4},   {"uint32", 4}, {"int64", 8},  {"uint64", 8},
      {"boolean", 1}, {"text", 2},    {"list", 0},   {"struct", 0}, {"object", 0}};
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    const auto cls = static_cast<qxClass>(i);
    EXPECT_EQ(qxClassName(cls), wanted[i].first);
    EXPECT_EQ(qxClassBytes(cls), wanted[i].second);
  }
}

TEST(Shape, OnlyNumericClassesAreNumeric) {
  EXPECT_TRUE(qxIsNumeric(qxCreateScalar(1).get()));
  EXPECT_TRUE(qxIsNumeric(qxCreateNumericArray({}, qxClass::Uint64).get()));
  EXPECT_FALSE(qxIsNumeric(qxCreateBoolean(true).get()));
  EXPECT_FALSE(qxIsNumeric(qxCreateString(u"a").get()));
  EXPECT_FALSE(qxIsNumeric(qxCreateListArray({}).get()));
}

// --- Sizes that cannot be ---

TEST(Shape, ProductThatOverflowsThrowsTooLarge) {
  for (const Dimensions& dimensions :
       {Dimensions{kMost, 2}, Dimensions{std::size_t{1} << 32, std::size_t{1} << 32}, Dimensions{3, kMost, kMost}}) {
    EXPECT_THROW(uint8Array(dimensions), Exception<host::array::TooLarge>);
    EXPECT_THROW(qxCreateUninitializedArray(dimensions, qxClass::Uint8), Exception<host::array::TooLarge>);
    EXPECT_THROW(qxCreateListArray(dimensions), Exception<host::array::TooLarge>);
    EXPECT_THROW(qxCreateStructArray(dimensions, {}), Exception<host::array::TooLarge>);
    EXPECT_THROW(qxAdoptArray(dimensions, qxClass::Uint8, false, nullptr, false, [] {}),
                 Exception<host::array::TooLarge>);
  }
}

TEST(Shape, BytesThatOverflowThrowTooLarge) {
  const Dimensions elements{(kMost / 8) + 1, 1};
  EXPECT_THROW(qxCreateNumericArray(elements, qxClass::Float64), Exception<host::array::TooLarge>);
  const Dimensions half{(kMost / 16) + 1, 1};
  EXPECT_THROW(qxCreateNumericArray(half, qxClass::Float64, true), Exception<host::array::TooLarge>);
}

TEST(Shape, TooLargeNamesDimensionsAndClass) {
  try {
    qxCreateNumericArray(Dimensions{kMost, 2, 3}, qxClass::Int16);
    FAIL() << "nothing was thrown";
  } catch (const Exception<host::array::TooLarge>& error) {
    EXPECT_EQ(error.identifier(), "host:array:TooLarge");
    EXPECT_THAT(error.what(), testing::HasSubstr("18446744073709551615-by-2-by-3"));
    EXPECT_THAT(error.what(), testing::HasSubstr("int16"));
  }
}

TEST(Shape, MoreMemoryThanThereIsThrowsOutOfMemory) {
  const Dimensions addressable{std::numeric_limits<std::ptrdiff_t>::max() / 2, 1};
  EXPECT_THROW(uint8Array(addressable), OutOfMemory);
  EXPECT_THROW(qxCreateUninitializedArray(addressable, qxClass::Uint8), std::bad_alloc);
}

TEST(Shape, ZeroDimensionMakesHugeOthersHarmless) {
  EXPECT_EQ(qxGetNumberOfElements(uint8Array({kMost, kMost, 0}).get()), 0U);
}

// --- Reshape ---

TEST(Reshape, SameProductKeepsTheElements) {
  qxArrayPtr array = uint8Array({2, 3});
  const auto elements = qxGetWritableElements<std::uint8_t>(array.get());
  for (std::size_t i = 0; i < 6; ++i)
    elements[i] = static_cast<std::uint8_t>(i);
  qxReshape(array.get(), Dimensions{3, 1, 2});
  EXPECT_THAT(dimensionsOf(array), ElementsAre(3, 1, 2));
  EXPECT_THAT(qxGetElements<std::uint8_t>(array.get()), ElementsAre(0, 1, 2, 3, 4, 5));
}

TEST(Reshape, OtherProductThrowsAndChangesNothing) {
  const qxArrayPtr array = uint8Array({2, 3});
  EXPECT_THROW(qxReshape(array.get(), Dimensions{2, 2}), Exception<host::array::WrongShape>);
  EXPECT_THROW(qxReshape(array.get(), Dimensions{kMost, 2}), Exception<host::array::WrongShape>);
  EXPECT_THAT(dimensionsOf(array), ElementsAre(2, 3));
}

TEST(Reshape, OtherSharesKeepTheirShapeAndNothingIsCopied) {
  const qxArrayPtr array = uint8Array({2, 3});
  const qxArrayPtr share = qxCreateSharedCopy(array.get());
  qxReshape(array.get(), Dimensions{6});
  EXPECT_THAT(dimensionsOf(share), ElementsAre(2, 3));
  EXPECT_THAT(dimensionsOf(array), ElementsAre(6, 1));
  EXPECT_EQ(qxGetData(array.get()), qxGetData(share.get()));
}

TEST(Reshape, TakesTheArraysOwnDimensions) {
  const qxArrayPtr array = uint8Array({2, 3, 4});
  qxReshape(array.get(), qxGetDimensions(array.get()));
  EXPECT_THAT(dimensionsOf(array), ElementsAre(2, 3, 4));
}

TEST(Reshape, ListsReshapeToo) {
  const qxArrayPtr list = qxCreateListArray(Dimensions{2, 2});
  qxSetListElement(list.get(), 3, qxCreateScalar(4));
  qxReshape(list.get(), Dimensions{1, 4});
  EXPECT_NE(qxGetListElement(list.get(), 3), nullptr);
}
