// How much memory qxDeserialize asks for.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/array/testing/goldenArrays.h"
#include "tests/allocation/allocationHooks.h"

namespace {

using allocation_testing::requestedBytes;
using array_testing::Bytes;
using array_testing::bytesFromHex;

// All bytes asked for while the document is read and its array destroyed, whether freed in between or not.
std::size_t bytesRequestedFor(const Bytes& document) {
  const std::size_t before = requestedBytes();
  const qxArrayPtr array(qxDeserialize(document.data(), document.size()));
  return requestedBytes() - before;
}

std::size_t bytesRequestedFor(const std::string& hex) {
  return bytesRequestedFor(bytesFromHex("d9d9f7" + hex));
}

const std::string kListHead = "da007a6b73 a3 00 646c697374 ";
const std::string kStructHead = "da007a6b73 a4 00 66737472756374 ";

// More than what small values cost beside their elements, and far less than any claim below.
constexpr std::size_t kSmall = 4096;

}  // namespace

TEST(DeserializeAllocation, CounterSeesWhatArraysTake) {
  const std::size_t before = requestedBytes();
  const std::vector<std::size_t> small{1000, 1};
  const std::vector<std::size_t> large{10000000, 1};
  const qxArrayPtr zeroed = qxCreateNumericArray(small, qxClass::Uint8);
  EXPECT_GE(requestedBytes() - before, 1000U);
  const qxArrayPtr unspecified = qxCreateUninitializedArray(small, qxClass::Uint8);
  EXPECT_GE(requestedBytes() - before, 2000U);
  const qxArrayPtr mapped = qxCreateNumericArray(large, qxClass::Uint8);
  EXPECT_GE(requestedBytes() - before, 10000000U);
  const qxArrayPtr list = qxCreateListArray(large);
  EXPECT_GE(requestedBytes() - before, 90000000U);
}

TEST(DeserializeAllocation, NumericHeaderThatClaimsATebibyteTakesNothing) {
  EXPECT_LT(bytesRequestedFor("d90410 82 82 1b0000010000000000 01 d840 5b0000010000000000 00"), kSmall);
  EXPECT_LT(bytesRequestedFor("d90410 82 82 1b0000010000000000 01 d840 40"), kSmall);
  EXPECT_LT(bytesRequestedFor("d90410 82 82 1b0000010000000000 01 d9a7f9 d856 5bffffffffffffffff 00"), kSmall);
}

TEST(DeserializeAllocation, DimensionCountThatClaimsATebibyteTakesNothing) {
  EXPECT_LT(bytesRequestedFor("d90410 82 9b0000010000000000 01 01"), kSmall);
}

TEST(DeserializeAllocation, ListHeaderThatClaimsATebibyteTakesNothing) {
  EXPECT_LT(bytesRequestedFor(kListHead + "01 82 01 1b0000010000000000 03 9b0000010000000000 f6"), kSmall);
}

TEST(DeserializeAllocation, StructHeadersThatClaimATebibyteTakeNothing) {
  EXPECT_LT(bytesRequestedFor(kStructHead + "01 82 01 1b0000010000000000 02 80 03 9b0000010000000000 80"), kSmall);
  EXPECT_LT(bytesRequestedFor(kStructHead + "01 82 01 01 02 9b0000010000000000 61 78"), kSmall);
  EXPECT_LT(bytesRequestedFor("da007a6b73 a3 00 7b0000010000000000 6c697374"), kSmall);
  EXPECT_LT(bytesRequestedFor("da007a6b73 bb0000010000000000 00 646c697374"), kSmall);
}

// Many fields and many elements, few bytes: the values would be the product of both.
TEST(DeserializeAllocation, StructWhoseFieldsTimesElementsPassTheBytesTakesLittle) {
  std::string hex = kStructHead + "01 82 01 190800 02 98c0 ";
  for (int i = 0; i < 192; ++i) {
    hex += "62" +
           array_testing::hexText({static_cast<unsigned char>('0' + i % 64), static_cast<unsigned char>('0' + i / 64)});
  }
  hex += "03 990800 ";
  for (int i = 0; i < 2048; ++i)
    hex += "80";
  EXPECT_LT(bytesRequestedFor(hex), 192 * 2048 * sizeof(void*) / 4);
}

// Every level announces as many elements as there are bytes left. Each claim alone would pass.
TEST(DeserializeAllocation, NestedListsThatEachClaimAllTheBytesTakeLittle) {
  const std::size_t padding = 100000;
  std::string hex;
  for (int level = 0; level < 200; ++level)
    hex += kListHead + "01 82 01 1a00010000 03 9a00010000 ";
  for (std::size_t i = 0; i < padding; ++i)
    hex += "f6";
  EXPECT_LT(bytesRequestedFor(hex), 20 * hex.size());
}

// The most that any byte can cost: the smallest value there is, many times over.
TEST(DeserializeAllocation, BytesTakenGrowWithTheBytesGiven) {
  std::string hex = kListHead + "01 82 01 192710 03 992710 ";
  for (int i = 0; i < 10000; ++i)
    hex += "d90410 82 81 00 d840 40 ";
  const Bytes document = bytesFromHex("d9d9f7" + hex);
  EXPECT_LT(bytesRequestedFor(document), 40 * document.size());
  ASSERT_NE(qxArrayPtr(qxDeserialize(document.data(), document.size())), nullptr);
}

TEST(DeserializeAllocation, NoSingleByteMutationTakesMoreThanTheBytesCanFill) {
  for (const auto& [name, bytes] : array_testing::documentedBytes()) {
    for (std::size_t at = 0; at < bytes.size(); ++at) {
      for (int other = 0; other < 256; ++other) {
        Bytes mutant = bytes;
        mutant[at] = static_cast<unsigned char>(other);
        ASSERT_LT(bytesRequestedFor(mutant), kSmall) << name << " byte " << at << " set to " << other;
      }
    }
  }
}
