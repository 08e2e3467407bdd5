#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

using testing::Each;
using testing::ElementsAre;
using Dimensions = std::vector<std::size_t>;

namespace {

constexpr std::size_t kMebi = std::size_t{1} << 20;

bool isAligned(const void* data, std::size_t alignment) {
  return reinterpret_cast<std::uintptr_t>(data) % alignment == 0;
}

// How many pages of the memory are in use.
std::size_t residentPages(const void* data, std::size_t nbytes) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const auto first = reinterpret_cast<std::uintptr_t>(data) / page * page;
  const auto last = (reinterpret_cast<std::uintptr_t>(data) + nbytes) / page * page;
  std::vector<unsigned char> present((last - first) / page);
  EXPECT_EQ(mincore(reinterpret_cast<void*>(first), last - first, present.data()), 0);
  return static_cast<std::size_t>(std::count_if(present.begin(), present.end(), [](unsigned char p) { return p & 1; }));
}

}  // namespace

TEST(NumericArray, EveryClassIsCreatedZeroFilled) {
  for (int i = 0; i <= static_cast<int>(qxClass::Text); ++i) {
    const auto cls = static_cast<qxClass>(i);
    const qxArrayPtr array = qxCreateNumericArray(Dimensions{3, 2}, cls);
    EXPECT_EQ(qxGetClass(array.get()), cls);
    const auto* bytes = static_cast<const unsigned char*>(qxGetData(array.get()));
    EXPECT_TRUE(std::all_of(bytes, bytes + qxGetDataBytes(array.get()), [](unsigned char b) { return b == 0; }));
  }
}

// Sizes on both sides of where memory comes from elsewhere; freed memory with other contents may come back.
TEST(NumericArray, ZeroFilledAtEverySizeAfterDirtyMemoryWasFreed) {
  for (const std::size_t nbytes :
       {std::size_t{1}, std::size_t{100}, std::size_t{4096}, 4 * kMebi - 1, 4 * kMebi, 5 * kMebi}) {
    for (int round = 0; round < 3; ++round) {
      const qxArrayPtr array = qxCreateNumericArray(Dimensions{nbytes, 1}, qxClass::Uint8);
      const auto elements = qxGetWritableElements<std::uint8_t>(array.get());
      ASSERT_TRUE(std::all_of(elements.begin(), elements.end(), [](std::uint8_t e) { return e == 0; })) << nbytes;
      std::fill(elements.begin(), elements.end(), std::uint8_t{0xFF});
    }
  }
}

// Below that, data lies right behind what else the array has.
TEST(NumericArray, DataOfMoreThanAFewCacheLinesIsAlignedToThem) {
  for (const std::size_t nbytes : {std::size_t{257}, std::size_t{1000}, std::size_t{5000}, 4 * kMebi, 9 * kMebi + 1}) {
    EXPECT_TRUE(isAligned(qxGetData(qxCreateNumericArray(Dimensions{nbytes, 1}, qxClass::Uint8).get()), 64));
    EXPECT_TRUE(isAligned(qxGetData(qxCreateUninitializedArray(Dimensions{nbytes, 1}, qxClass::Uint8).get()), 64));
  }
}

TEST(NumericArray, CreationTouchesNoPagesOfLargeArrays) {
  const std::size_t nbytes = 256 * kMebi;
  const qxArrayPtr array = qxCreateNumericArray(Dimensions{nbytes, 1}, qxClass::Uint8);
  EXPECT_EQ(residentPages(qxGetData(array.get()), nbytes), 0U);
  qxGetWritableElements<std::uint8_t>(array.get())[0] = 1;
  EXPECT_GE(residentPages(qxGetData(array.get()), nbytes), 1U);
}

TEST(NumericArray, LastByteOfALargeArrayCanBeWritten) {
  for (const std::size_t nbytes : {4 * kMebi, 4 * kMebi + 1, 6 * kMebi - 1}) {
    const qxArrayPtr array = qxCreateUninitializedArray(Dimensions{nbytes, 1}, qxClass::Uint8);
    const auto elements = qxGetWritableElements<std::uint8_t>(array.get());
    elements.front() = 1;
    elements.back() = 2;
    EXPECT_EQ(qxGetElements<std::uint8_t>(array.get()).back(), 2);
  }
}

TEST(NumericArray, ClassesWithoutElementBytesThrowWrongClass) {
  for (const qxClass cls : {qxClass::List, qxClass::Struct, qxClass::Object}) {
    EXPECT_THROW(qxCreateNumericArray({}, cls), Exception<host::array::WrongClass>);
    EXPECT_THROW(qxCreateUninitializedArray({}, cls), Exception<host::array::WrongClass>);
    EXPECT_THROW(qxAdoptArray({}, cls, false, nullptr, false, [] {}), Exception<host::array::WrongClass>);
  }
}

TEST(NumericArray, ComplexBooleanOrTextThrowsWrongClass) {
  for (const qxClass cls : {qxClass::Boolean, qxClass::Text, qxClass::List}) {
    EXPECT_THROW(qxCreateNumericArray({}, cls, true), Exception<host::array::WrongClass>);
  }
}

TEST(NumericArray, ViewOfAnotherTypeThrowsWrongClassNamingBoth) {
  const qxArrayPtr array = qxCreateScalar(1.5);
  EXPECT_THROW(qxGetWritableElements<float>(array.get()), Exception<host::array::WrongClass>);
  try {
    qxGetElements<std::int32_t>(array.get());
    FAIL() << "nothing was thrown";
  } catch (const Exception<host::array::WrongClass>& error) {
    EXPECT_STREQ(error.what(), "An array of class float64 was given where int32 is expected.");
  }
}

TEST(NumericArray, ComplexViewHasTwoPartsAnElement) {
  const qxArrayPtr array = qxCreateNumericArray(Dimensions{1, 3}, qxClass::Float64, true);
  EXPECT_EQ(qxGetElements<double>(array.get()).size(), 6U);
  EXPECT_EQ(qxGetWritableElements<double>(array.get()).size(), 6U);
}

TEST(NumericArray, ScalarsHoldTheirValue) {
  EXPECT_THAT(qxGetElements<double>(qxCreateScalar(-2.5).get()), ElementsAre(-2.5));
  EXPECT_THAT(qxGetElements<bool>(qxCreateBoolean(true).get()), ElementsAre(true));
  EXPECT_THAT(qxGetElements<bool>(qxCreateBoolean(false).get()), ElementsAre(false));
}

TEST(NumericArray, EmptyArraysHaveEmptyViews) {
  const qxArrayPtr array = qxCreateNumericArray(Dimensions{0, 7}, qxClass::Int64);
  EXPECT_TRUE(qxGetElements<std::int64_t>(array.get()).empty());
  EXPECT_TRUE(qxGetWritableElements<std::int64_t>(array.get()).empty());
}

TEST(NumericArray, DestroyingNullIsAccepted) {
  qxDestroyArray(nullptr);
}

// --- Adoption ---

namespace {

struct Owner {
  alignas(64) std::array<double, 4> numbers{1, 2, 3, 4};
  int released = 0;

  qxArrayPtr lend(bool writable) {
    return qxAdoptArray(Dimensions{2, 2}, qxClass::Float64, false, numbers.data(), writable, [this] { ++released; });
  }
};

}  // namespace

TEST(AdoptedArray, ShowsTheOwnersMemory) {
  Owner owner;
  const qxArrayPtr array = owner.lend(false);
  EXPECT_EQ(qxGetData(array.get()), owner.numbers.data());
  EXPECT_THAT(qxGetElements<double>(array.get()), ElementsAre(1, 2, 3, 4));
}

TEST(AdoptedArray, ReleasedOnceWithTheLastShare) {
  Owner owner;
  qxArrayPtr array = owner.lend(true);
  qxArrayPtr first = qxCreateSharedCopy(array.get());
  qxArrayPtr second = qxCreateSharedCopy(first.get());
  array.reset();
  first.reset();
  EXPECT_EQ(owner.released, 0);
  second.reset();
  EXPECT_EQ(owner.released, 1);
}

TEST(AdoptedArray, WriteThroughTheOnlyShareOfWritableMemoryGoesToTheOwner) {
  Owner owner;
  const qxArrayPtr array = owner.lend(true);
  qxGetWritableElements<double>(array.get())[1] = 20;
  EXPECT_EQ(owner.numbers[1], 20);
  EXPECT_EQ(owner.released, 0);
}

TEST(AdoptedArray, WriteThroughOneOfTwoSharesCopies) {
  Owner owner;
  const qxArrayPtr array = owner.lend(true);
  const qxArrayPtr other = qxCreateSharedCopy(array.get());
  qxGetWritableElements<double>(other.get())[1] = 20;
  EXPECT_EQ(owner.numbers[1], 2);
  EXPECT_EQ(qxGetData(array.get()), owner.numbers.data());
  EXPECT_THAT(qxGetElements<double>(other.get()), ElementsAre(1, 20, 3, 4));
}

TEST(AdoptedArray, WriteToUnwritableMemoryCopiesAndReleasesTheOwner) {
  Owner owner;
  const qxArrayPtr array = owner.lend(false);
  qxGetWritableElements<double>(array.get())[1] = 20;
  EXPECT_EQ(owner.numbers[1], 2);
  EXPECT_THAT(qxGetElements<double>(array.get()), ElementsAre(1, 20, 3, 4));
  EXPECT_EQ(owner.released, 1);
}

TEST(AdoptedArray, SecondWriteToUnwritableMemoryDoesNotCopyAgain) {
  Owner owner;
  const qxArrayPtr array = owner.lend(false);
  const void* copy = qxGetWritableData(array.get());
  EXPECT_EQ(qxGetWritableData(array.get()), copy);
}

TEST(AdoptedArray, FailedCreationDoesNotRelease) {
  Owner owner;
  const auto release = [&owner] { ++owner.released; };
  EXPECT_THROW(qxAdoptArray(Dimensions{2, 2}, qxClass::List, false, owner.numbers.data(), true, release),
               Exception<host::array::WrongClass>);
  EXPECT_THROW(qxAdoptArray(Dimensions{SIZE_MAX, 2}, qxClass::Float64, false, owner.numbers.data(), true, release),
               Exception<host::array::TooLarge>);
  EXPECT_EQ(owner.released, 0);
}

TEST(AdoptedArray, EmptyReleaseFunctionIsAccepted) {
  std::uint8_t byte = 7;
  const qxArrayPtr array = qxAdoptArray({}, qxClass::Uint8, false, &byte, true, {});
  EXPECT_THAT(qxGetElements<std::uint8_t>(array.get()), ElementsAre(7));
}

TEST(AdoptedArray, NothingToAdoptStillReleases) {
  int released = 0;
  qxArrayPtr array = qxAdoptArray(Dimensions{0, 3}, qxClass::Uint8, false, nullptr, false, [&] { ++released; });
  EXPECT_TRUE(qxGetElements<std::uint8_t>(array.get()).empty());
  array.reset();
  EXPECT_EQ(released, 1);
}

TEST(AdoptedArray, ReshapingKeepsTheOwnersMemory) {
  Owner owner;
  const qxArrayPtr array = owner.lend(false);
  qxReshape(array.get(), Dimensions{4});
  EXPECT_EQ(qxGetData(array.get()), owner.numbers.data());
  EXPECT_EQ(owner.released, 0);
}
