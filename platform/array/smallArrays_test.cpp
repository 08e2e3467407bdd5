// Arrays of a few bytes, which lie in memory another way than larger ones: nobody must notice.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "platform/array/qxArray.h"

using testing::ElementsAre;
using Dimensions = std::vector<std::size_t>;

namespace {

struct Kind {
  qxClass cls;
  bool complex;
};

std::vector<Kind> kindsWithData() {
  std::vector<Kind> kinds;
  for (int number = 0; number <= static_cast<int>(qxClass::Text); ++number) {
    const auto cls = static_cast<qxClass>(number);
    kinds.push_back({cls, false});
    if (cls <= qxClass::Uint64)
      kinds.push_back({cls, true});
  }
  return kinds;
}

void fill(qxArray* array, unsigned char byte) {
  std::memset(qxGetWritableData(array), byte, qxGetDataBytes(array));
}

bool isFilled(const qxArray* array, unsigned char byte) {
  const auto* bytes = static_cast<const unsigned char*>(qxGetData(array));
  return std::all_of(bytes, bytes + qxGetDataBytes(array), [byte](unsigned char b) { return b == byte; });
}

// Around the borders between an element in the share, bytes behind the body and a block of their own.
template <class Body>
void forSmallArrays(Body body) {
  for (const Kind kind : kindsWithData()) {
    for (const std::size_t count : {1, 2, 3, 15, 16, 17, 31, 32, 33, 127, 128, 129, 255, 256, 257})
      body(kind, Dimensions{1, count});
  }
}

}  // namespace

TEST(SmallArrays, AreCreatedZeroFilledAfterOthersLeftTheirBytes) {
  forSmallArrays([](Kind kind, const Dimensions& dimensions) {
    for (int i = 0; i < 3; ++i) {
      const qxArrayPtr array = qxCreateNumericArray(dimensions, kind.cls, kind.complex);
      ASSERT_TRUE(isFilled(array.get(), 0)) << qxClassName(kind.cls) << " " << dimensions[1];
      fill(array.get(), 0xFF);
    }
  });
}

TEST(SmallArrays, KeepTheirBytesWhenAnotherShareIsWritten) {
  forSmallArrays([](Kind kind, const Dimensions& dimensions) {
    const qxArrayPtr array = qxCreateUninitializedArray(dimensions, kind.cls, kind.complex);
    fill(array.get(), 1);
    const qxArrayPtr share = qxCreateSharedCopy(array.get());
    ASSERT_TRUE(isFilled(share.get(), 1));
    fill(share.get(), 0);
    ASSERT_TRUE(isFilled(array.get(), 1)) << qxClassName(kind.cls) << " " << dimensions[1];
    ASSERT_TRUE(isFilled(share.get(), 0));
  });
}

TEST(SmallArrays, AreEqualOnlyWhenTheirBytesAre) {
  forSmallArrays([](Kind kind, const Dimensions& dimensions) {
    const qxArrayPtr left = qxCreateNumericArray(dimensions, kind.cls, kind.complex);
    const qxArrayPtr right = qxCreateNumericArray(dimensions, kind.cls, kind.complex);
    ASSERT_TRUE(qxEqual(left.get(), right.get()));
    auto* bytes = static_cast<unsigned char*>(qxGetWritableData(right.get()));
    bytes[qxGetDataBytes(right.get()) - 1] = 1;
    ASSERT_FALSE(qxEqual(left.get(), right.get())) << qxClassName(kind.cls) << " " << dimensions[1];
  });
}

TEST(SmallArrays, DataIsAlignedForItsClass) {
  forSmallArrays([](Kind kind, const Dimensions& dimensions) {
    const qxArrayPtr array = qxCreateUninitializedArray(dimensions, kind.cls, kind.complex);
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(qxGetData(array.get())) % qxClassBytes(kind.cls), 0U);
  });
}

TEST(SmallArrays, ReplacedSingleElementIsTheOther) {
  const qxArrayPtr array = qxCreateScalar(1);
  qxReplace(array.get(), qxCreateScalar(2));
  EXPECT_THAT(qxGetElements<double>(array.get()), ElementsAre(2));
  qxReplace(array.get(), qxCreateString(u"text"));
  EXPECT_EQ(qxGetString(array.get()), u"text");
  qxReplace(array.get(), qxCreateBoolean(true));
  EXPECT_THAT(qxGetElements<bool>(array.get()), ElementsAre(true));
}

TEST(SmallArrays, ReplacedShareOutlivesTheValueItCameFrom) {
  qxArrayPtr text = qxCreateString(u"text");
  const qxArrayPtr share = qxCreateSharedCopy(text.get());
  qxReplace(text.get(), qxCreateScalar(2));
  EXPECT_EQ(qxGetString(share.get()), u"text");
  text.reset();
  EXPECT_EQ(qxGetString(share.get()), u"text");
}

TEST(SmallArrays, SingleElementOfAnotherOwnerStaysInItsMemory) {
  double number = 5;
  int released = 0;
  {
    const qxArrayPtr array =
        qxAdoptArray(Dimensions{1, 1}, qxClass::Float64, false, &number, true, [&released] { ++released; });
    EXPECT_EQ(qxGetData(array.get()), &number);
    EXPECT_EQ(qxGetWritableData(array.get()), &number);
  }
  EXPECT_EQ(released, 1);
}

TEST(SmallArrays, SingleElementCanHaveAnyDimensionsOfOne) {
  const qxArrayPtr array = qxCreateScalar(7);
  const Dimensions solid{1, 1, 1, 1};
  qxReshape(array.get(), solid);
  EXPECT_THAT(qxGetDimensions(array.get()), ElementsAre(1, 1));
  EXPECT_THAT(qxGetElements<double>(array.get()), ElementsAre(7));
}

TEST(SmallArrays, WithoutElementsKeepTheirDimensions) {
  for (const Kind kind : kindsWithData()) {
    const qxArrayPtr array = qxCreateNumericArray(Dimensions{0, 3}, kind.cls, kind.complex);
    const qxArrayPtr share = qxCreateSharedCopy(array.get());
    EXPECT_THAT(qxGetDimensions(share.get()), ElementsAre(0, 3));
    EXPECT_EQ(qxGetDataBytes(share.get()), 0U);
    qxGetWritableData(share.get());
    EXPECT_TRUE(qxEqual(array.get(), share.get()));
  }
}
