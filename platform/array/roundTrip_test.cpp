// Properties over random arrays of every class.
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <set>

#include "platform/array/testing/arbitraryArray.h"
#include "platform/array/testing/goldenArrays.h"

using array_testing::AnyArray;
using array_testing::arbitraryArray;
using array_testing::Bytes;
using array_testing::deserialised;
using array_testing::serialised;

namespace {

// RapidCheck shows the operands of a comparison, which it cannot do with array pointers.
bool exists(const qxArrayPtr& array) {
  return array != nullptr;
}

}  // namespace

RC_GTEST_PROP(RoundTrip, SerialisedArrayComesBackEqual, ()) {
  const AnyArray array = *arbitraryArray();
  const qxArrayPtr back = deserialised(serialised(array.get()));
  RC_ASSERT(exists(back));
  RC_ASSERT(qxEqual(array.get(), back.get()));
}

RC_GTEST_PROP(RoundTrip, ComesBackWithTheSameBytes, ()) {
  const AnyArray array = *arbitraryArray();
  const Bytes bytes = serialised(array.get());
  const qxArrayPtr back = deserialised(bytes);
  RC_ASSERT(exists(back));
  RC_ASSERT(serialised(back.get()) == bytes);
}

RC_GTEST_PROP(RoundTrip, TruncatedBytesGiveNoArray, ()) {
  const Bytes bytes = serialised((*arbitraryArray()).get());
  const auto kept = *rc::gen::inRange<std::size_t>(0, bytes.size());
  RC_ASSERT(!exists(deserialised(Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(kept)))));
}

RC_GTEST_PROP(RoundTrip, DamagedBytesGiveNoneOrASoundArray, ()) {
  Bytes bytes = serialised((*arbitraryArray()).get());
  const auto at = *rc::gen::inRange<std::size_t>(0, bytes.size());
  bytes[at] = *rc::gen::arbitrary<unsigned char>();
  const qxArrayPtr array = deserialised(bytes);
  if (array == nullptr)
    return;
  const qxArrayPtr again = deserialised(serialised(array.get()));
  RC_ASSERT(exists(again));
  RC_ASSERT(qxEqual(array.get(), again.get()));
}

RC_GTEST_PROP(RoundTrip, SharedCopyIsEqual, ()) {
  const AnyArray array = *arbitraryArray();
  const qxArrayPtr copy = qxCreateSharedCopy(array.get());
  RC_ASSERT(qxEqual(array.get(), copy.get()));
  RC_ASSERT(qxEqual(copy.get(), array.get()));
}

RC_GTEST_PROP(RoundTrip, EqualArraysHaveEqualBytesWhenFieldsStandInOneOrder, ()) {
  // The generator rarely makes the same array twice, so compare small ones.
  const AnyArray left = *arbitraryArray(1);
  const AnyArray right = *arbitraryArray(1);
  if (serialised(left.get()) == serialised(right.get()))
    RC_ASSERT(qxEqual(left.get(), right.get()));
  if (!qxEqual(left.get(), right.get()))
    RC_ASSERT(serialised(left.get()) != serialised(right.get()));
}

// The generator is worth something only if it reaches every class.
TEST(ArbitraryArray, ReachesEveryClassAndComplexAndUnset) {
  std::set<qxClass> classes;
  bool complex = false;
  bool unset = false;
  rc::Random random(20);
  for (int i = 0; i < 500; ++i) {
    const AnyArray array = arbitraryArray()(random.split(), rc::kNominalSize).value();
    classes.insert(qxGetClass(array.get()));
    complex = complex || qxIsComplex(array.get());
    if (qxGetClass(array.get()) != qxClass::List)
      continue;
    for (std::size_t e = 0; e < qxGetNumberOfElements(array.get()); ++e) {
      unset = unset || qxGetListElement(array.get(), e) == nullptr;
    }
  }
  EXPECT_EQ(classes.size(), static_cast<std::size_t>(qxClass::Struct) + 1);
  EXPECT_TRUE(complex);
  EXPECT_TRUE(unset);
}
