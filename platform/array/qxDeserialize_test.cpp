// Hostile and damaged bytes. What well-formed bytes become is tested with the writer.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/array/testing/goldenArrays.h"

using array_testing::Bytes;
using array_testing::bytesFromHex;
using array_testing::deserialised;
using array_testing::hexText;
using array_testing::serialised;

namespace {

const std::string kMagic = "d9d9f7 ";
const std::string kBooleanMap = "da007a6b73 a3 00 67626f6f6c65616e ";
const std::string kTextMap = "da007a6b73 a3 00 6474657874 ";
const std::string kListMap = "da007a6b73 a3 00 646c697374 ";
const std::string kStructMap = "da007a6b73 a4 00 66737472756374 ";
const std::string kTrue = "da007a6b73 a3 00 67626f6f6c65616e 01 82 01 01 03 41 01 ";  // one boolean

qxArrayPtr read(const std::string& hex) {
  return deserialised(bytesFromHex(hex));
}
qxArrayPtr readValue(const std::string& hex) {
  return read(kMagic + hex);
}

// A value that was read can be walked, written again and read again.
void expectNullOrSound(const qxArrayPtr& array) {
  if (array == nullptr)
    return;
  const qxArrayPtr again = deserialised(serialised(array.get()));
  ASSERT_NE(again, nullptr);
  EXPECT_TRUE(qxEqual(again.get(), array.get()));
}

}  // namespace

TEST(Deserialize, NoBytesGiveNoArray) {
  EXPECT_EQ(qxDeserialize(nullptr, 0), nullptr);
  EXPECT_EQ(qxDeserialize("", 0), nullptr);
}

TEST(Deserialize, EveryTruncationGivesNoArray) {
  for (const auto& [name, bytes] : array_testing::documentedBytes()) {
    for (std::size_t kept = 0; kept < bytes.size(); ++kept) {
      EXPECT_EQ(deserialised(Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(kept))), nullptr)
          << name << " cut to " << kept;
    }
  }
}

TEST(Deserialize, AnyTrailingByteGivesNoArray) {
  for (auto& [name, bytes] : array_testing::documentedBytes()) {
    for (int last = 0; last < 256; ++last) {
      Bytes longer = bytes;
      longer.push_back(static_cast<unsigned char>(last));
      EXPECT_EQ(deserialised(longer), nullptr) << name << " and " << last;
    }
  }
}

TEST(Deserialize, EverySingleByteMutationGivesNoneOrASoundArray) {
  for (const auto& [name, bytes] : array_testing::documentedBytes()) {
    for (std::size_t at = 0; at < bytes.size(); ++at) {
      for (int other = 0; other < 256; ++other) {
        Bytes mutant = bytes;
        mutant[at] = static_cast<unsigned char>(other);
        SCOPED_TRACE(name + " with byte " + std::to_string(at) + " set to " + std::to_string(other));
        expectNullOrSound(deserialised(mutant));
        if (HasFatalFailure())
          return;
      }
    }
  }
}

TEST(Deserialize, SeededRandomMutationsGiveNoneOrASoundArray) {
  const std::uint64_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  std::vector<Bytes> goldens;
  for (auto& [name, bytes] : array_testing::documentedBytes())
    goldens.push_back(bytes);
  for (int round = 0; round < 30000; ++round) {
    Bytes bytes = goldens[random() % goldens.size()];
    const Bytes& donor = goldens[random() % goldens.size()];
    for (std::uint64_t change = random() % 5 + 1; change > 0 && !bytes.empty(); --change) {
      const auto at = static_cast<std::ptrdiff_t>(random() % bytes.size());
      const auto from = static_cast<std::ptrdiff_t>(random() % donor.size());
      switch (random() % 4) {
        case 0:
          bytes[static_cast<std::size_t>(at)] = static_cast<unsigned char>(random());
          break;
        case 1:
          bytes.erase(bytes.begin() + at);
          break;
        case 2:
          bytes.insert(bytes.begin() + at, static_cast<unsigned char>(random()));
          break;
        default:
          bytes.insert(bytes.begin() + at, donor.begin() + from, donor.end());
      }
    }
    SCOPED_TRACE(hexText(bytes));
    expectNullOrSound(deserialised(bytes));
    if (HasFatalFailure())
      return;
  }
}

// --- The document's head ---

TEST(Deserialize, MissingSelfDescribedTagGivesNoArray) {
  EXPECT_EQ(read("d90410 82 82 01 01 d840 41 07"), nullptr);
}

TEST(Deserialize, OtherTagsGiveNoArray) {
  EXPECT_EQ(readValue("c1 01"), nullptr);
  EXPECT_EQ(readValue("d828 82 82 01 01 d840 41 07"), nullptr);           // tag 40: row-major
  EXPECT_EQ(readValue("d9d9f7 d90410 82 82 01 01 d840 41 07"), nullptr);  // the self-described tag twice
}

TEST(Deserialize, BareItemsGiveNoArray) {
  for (const char* item : {"00", "20", "40", "60", "80", "a0", "f4", "f5", "f6", "f7", "f97e00", "fa7fc00000",
                           "fb7ff8000000000000", "f820", "ff", "1c", "5f41ffff"}) {
    EXPECT_EQ(readValue(item), nullptr) << item;
  }
}

// --- Numeric arrays ---

TEST(Deserialize, WiderIntegersThanNeededAreRead) {
  const qxArrayPtr array = readValue("d90410 82 82 1801 190001 d840 58 01 07");
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(qxGetElements<std::uint8_t>(array.get())[0], 7);
  EXPECT_NE(readValue("d90410 9a00000002 9b0000000000000002 1a00000001 1b0000000000000001 d840 5900 01 07"), nullptr);
}

TEST(Deserialize, OneDimensionIsAColumn) {
  const qxArrayPtr array = readValue("d90410 82 81 02 d840 42 0708");
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(qxGetDimensions(array.get())[0], 2U);
  EXPECT_EQ(qxGetDimensions(array.get())[1], 1U);
}

TEST(Deserialize, TrailingDimensionsOfOneAreDropped) {
  const qxArrayPtr array = readValue("d90410 82 84 02 01 01 01 d840 42 0708");
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(qxGetDimensions(array.get()).size(), 2U);
}

TEST(Deserialize, ZeroDimensionBesideHugeOnesIsAnEmptyArray) {
  const qxArrayPtr array = readValue("d90410 82 83 1bffffffffffffffff 1bffffffffffffffff 00 d840 40");
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(qxGetNumberOfElements(array.get()), 0U);
  expectNullOrSound(array);
}

TEST(Deserialize, NoDimensionsGiveNoArray) {
  EXPECT_EQ(readValue("d90410 82 80 d840 41 07"), nullptr);
}

TEST(Deserialize, DimensionThatIsNotAnUnsignedIntegerGivesNoArray) {
  EXPECT_EQ(readValue("d90410 82 82 20 01 d840 41 07"), nullptr);
  EXPECT_EQ(readValue("d90410 82 82 f93c00 01 d840 41 07"), nullptr);
  EXPECT_EQ(readValue("d90410 82 82 c24101 01 d840 41 07"), nullptr);  // bignum
}

TEST(Deserialize, ElementsThatDoNotFillTheDimensionsGiveNoArray) {
  EXPECT_EQ(readValue("d90410 82 82 01 02 d840 41 07"), nullptr);
  EXPECT_EQ(readValue("d90410 82 82 01 01 d840 42 0708"), nullptr);
  EXPECT_EQ(readValue("d90410 82 82 01 01 d84d 41 07"), nullptr);         // half an int16
  EXPECT_EQ(readValue("d90410 82 82 01 01 d84d 43 070809"), nullptr);     // one and a half
  EXPECT_EQ(readValue("d90410 82 82 01 01 d9a7f9 d840 41 07"), nullptr);  // half a complex number
}

TEST(Deserialize, ProductThatWrapsAroundGivesNoArray) {
  EXPECT_EQ(readValue("d90410 82 82 1b0000000100000000 1b0000000100000000 d840 40"), nullptr);
  // 2^63 + 1 elements of two bytes would be two bytes, modulo 2^64.
  EXPECT_EQ(readValue("d90410 82 82 1b8000000000000001 01 d84d 42 0708"), nullptr);
}

TEST(Deserialize, TypedArrayTagsThatAreNotOursGiveNoArray) {
  for (int tag = 0; tag < 256; ++tag) {
    const bool ours = (tag >= 69 && tag <= 72) || (tag >= 77 && tag <= 79) || tag == 64 || tag == 85 || tag == 86;
    const std::string hex = "d90410 82 82 01 00 d8" + hexText({static_cast<unsigned char>(tag)}) + " 40";
    EXPECT_EQ(readValue(hex) != nullptr, ours) << tag;
  }
}

TEST(Deserialize, ColumnMajorArrayOfOtherThanTwoItemsGivesNoArray) {
  EXPECT_EQ(readValue("d90410 81 82 01 01"), nullptr);
  EXPECT_EQ(readValue("d90410 83 82 01 01 d840 41 07 00"), nullptr);
  EXPECT_EQ(readValue("d90410 a1 82 01 01 d840 41 07"), nullptr);
}

TEST(Deserialize, ElementsInAPlainArrayGiveNoArray) {
  EXPECT_EQ(readValue("d90410 82 82 01 01 81 07"), nullptr);
}

// --- Indefinite lengths ---

TEST(Deserialize, IndefiniteLengthsGiveNoArray) {
  EXPECT_EQ(readValue("d90410 9f 82 01 01 d840 41 07 ff"), nullptr);
  EXPECT_EQ(readValue("d90410 82 9f 01 01 ff d840 41 07"), nullptr);
  EXPECT_EQ(readValue("d90410 82 82 01 01 d840 5f 41 07 ff"), nullptr);
  EXPECT_EQ(readValue("da007a6b73 bf 00 67626f6f6c65616e 01 82 01 01 03 41 01 ff"), nullptr);
  EXPECT_EQ(readValue("da007a6b73 a3 00 7f 67626f6f6c65616e ff 01 82 01 01 03 41 01"), nullptr);
  EXPECT_EQ(readValue(kListMap + "01 82 01 01 03 9f f6 ff"), nullptr);
}

// --- Maps ---

TEST(Deserialize, MissingMapEntriesGiveNoArray) {
  EXPECT_NE(readValue(kTrue), nullptr);
  EXPECT_EQ(readValue("da007a6b73 a0"), nullptr);
  EXPECT_EQ(readValue("da007a6b73 a2 01 82 01 01 03 41 01"), nullptr);
  EXPECT_EQ(readValue("da007a6b73 a2 00 67626f6f6c65616e 03 41 01"), nullptr);
  EXPECT_EQ(readValue("da007a6b73 a2 00 67626f6f6c65616e 01 82 01 01"), nullptr);
  EXPECT_EQ(readValue("da007a6b73 a3 00 66737472756374 01 82 01 01 03 81 80"), nullptr);  // no field names
}

TEST(Deserialize, MoreOrFewerMapEntriesThanAnnouncedGiveNoArray) {
  EXPECT_EQ(readValue("da007a6b73 a2 00 67626f6f6c65616e 01 82 01 01 03 41 01"), nullptr);
  EXPECT_EQ(readValue("da007a6b73 a4 00 67626f6f6c65616e 01 82 01 01 03 41 01"), nullptr);
  EXPECT_EQ(readValue("da007a6b73 a4 00 67626f6f6c65616e 01 82 01 01 02 80 03 41 01"), nullptr);
}

TEST(Deserialize, RepeatedMapKeysGiveNoArray) {
  EXPECT_EQ(readValue("da007a6b73 a4 00 67626f6f6c65616e 01 82 01 01 03 41 01 03 41 01"), nullptr);
  EXPECT_EQ(readValue("da007a6b73 a4 00 67626f6f6c65616e 01 82 01 01 01 82 01 01 03 41 01"), nullptr);
  EXPECT_EQ(readValue("da007a6b73 a3 00 67626f6f6c65616e 00 67626f6f6c65616e 01 82 01 01 03 41 01"), nullptr);
}

TEST(Deserialize, MapKeysInOtherOrderGiveNoArray) {
  EXPECT_EQ(readValue("da007a6b73 a3 01 82 01 01 00 67626f6f6c65616e 03 41 01"), nullptr);
}

TEST(Deserialize, UnknownClassesGiveNoArray) {
  EXPECT_EQ(readValue("da007a6b73 a3 00 666f626a656374 01 82 01 01 03 81 f6"), nullptr);  // "object"
  EXPECT_EQ(readValue("da007a6b73 a3 00 60 01 82 01 01 03 81 f6"), nullptr);
  EXPECT_EQ(readValue("da007a6b73 a3 00 44 6c697374 01 82 01 01 03 81 f6"), nullptr);  // bytes, not text
}

// --- Boolean and text ---

TEST(Deserialize, BooleanBytesOtherThanZeroAndOneGiveNoArray) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string hex = kBooleanMap + "01 82 01 02 03 42 01" + hexText({static_cast<unsigned char>(byte)});
    EXPECT_EQ(readValue(hex) != nullptr, byte <= 1) << byte;
  }
}

TEST(Deserialize, BooleanElementsThatDoNotFillTheDimensionsGiveNoArray) {
  EXPECT_EQ(readValue(kBooleanMap + "01 82 01 02 03 41 01"), nullptr);
}

TEST(Deserialize, TextWithAnotherElementTypeGivesNoArray) {
  EXPECT_NE(readValue(kTextMap + "01 82 01 01 03 d845 42 6100"), nullptr);
  EXPECT_EQ(readValue(kTextMap + "01 82 01 01 03 d84d 42 6100"), nullptr);
  EXPECT_EQ(readValue(kTextMap + "01 82 01 01 03 42 6100"), nullptr);
  EXPECT_EQ(readValue(kTextMap + "01 82 01 01 03 61 61"), nullptr);
  EXPECT_EQ(readValue(kTextMap + "01 82 01 01 03 d845 41 61"), nullptr);
}

TEST(Deserialize, UnpairedSurrogateInTextIsKept) {
  const qxArrayPtr array = readValue(kTextMap + "01 82 01 01 03 d845 42 00d8");
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(qxGetString(array.get()), std::u16string(1, u'\xD800'));
}

// --- Lists and structs ---

TEST(Deserialize, ListOfOtherLengthThanItsDimensionsGivesNoArray) {
  EXPECT_NE(readValue(kListMap + "01 82 01 02 03 82 f6 f6"), nullptr);
  EXPECT_EQ(readValue(kListMap + "01 82 01 02 03 81 f6"), nullptr);
  EXPECT_EQ(readValue(kListMap + "01 82 01 02 03 83 f6 f6 f6"), nullptr);
}

TEST(Deserialize, UndefinedIsNotAnUnsetElement) {
  EXPECT_EQ(readValue(kListMap + "01 82 01 01 03 81 f7"), nullptr);
}

TEST(Deserialize, NullIsNotAWholeValue) {
  EXPECT_EQ(readValue("f6"), nullptr);
}

TEST(Deserialize, ListThatAnnouncesMoreThanTheBytesGivesNoArray) {
  EXPECT_EQ(readValue(kListMap + "01 82 01 1b0000010000000000 03 9b0000010000000000 f6"), nullptr);
  EXPECT_EQ(readValue(kListMap + "01 82 01 1bffffffffffffffff 03 9bffffffffffffffff f6"), nullptr);
}

TEST(Deserialize, StructThatAnnouncesMoreThanTheBytesGivesNoArray) {
  EXPECT_EQ(readValue(kStructMap + "01 82 01 1b0000010000000000 02 80 03 9b0000010000000000 80"), nullptr);
  EXPECT_EQ(readValue(kStructMap + "01 82 01 01 02 9b0000010000000000 61 78 03 81 80"), nullptr);
  // 2^32 elements of 2^32 fields: the product wraps around to 0.
  EXPECT_EQ(readValue(kStructMap + "01 82 01 1b0000000100000000 02 80 03 9b0000000100000000"), nullptr);
}

TEST(Deserialize, StructElementOfOtherLengthThanTheFieldsGivesNoArray) {
  const std::string head = kStructMap + "01 82 01 01 02 81 61 78 03 81 ";
  EXPECT_NE(readValue(head + "81 f6"), nullptr);
  EXPECT_EQ(readValue(head + "80"), nullptr);
  EXPECT_EQ(readValue(head + "82 f6 f6"), nullptr);
  EXPECT_EQ(readValue(head + "f6"), nullptr);
}

TEST(Deserialize, BadFieldNamesGiveNoArray) {
  const std::string tail = " 03 81 82 f6 f6";
  const std::string head = kStructMap + "01 82 01 01 02 82 61 78 ";
  EXPECT_NE(readValue(head + "61 79" + tail), nullptr);
  EXPECT_EQ(readValue(head + "60" + tail), nullptr);           // empty
  EXPECT_EQ(readValue(head + "61 78" + tail), nullptr);        // twice
  EXPECT_EQ(readValue(head + "61 ff" + tail), nullptr);        // not UTF-8
  EXPECT_EQ(readValue(head + "62 c0af" + tail), nullptr);      // not the shortest form
  EXPECT_EQ(readValue(head + "63 eda080" + tail), nullptr);    // a surrogate
  EXPECT_EQ(readValue(head + "64 f4908080" + tail), nullptr);  // past U+10FFFF
  EXPECT_EQ(readValue(head + "41 79" + tail), nullptr);        // bytes
}

TEST(Deserialize, FieldNameThatOccursTwiceAmongManyGivesNoArray) {
  std::string names;
  std::string values;
  for (int i = 0; i < 40; ++i) {
    names += "62" + hexText({'n', static_cast<unsigned char>('0' + i)});
    values += "f6";
  }
  const std::string head = kStructMap + "01 82 01 01 02 9829 ";
  EXPECT_NE(readValue(head + names + "61 78 03 81 9829" + values + "f6"), nullptr);
  EXPECT_EQ(readValue(head + names + "62 6e35 03 81 9829" + values + "f6"), nullptr);
}

// --- Depth ---

namespace {

std::string bytesOfNestedLists(std::size_t levels) {
  std::string hex;
  for (std::size_t i = 0; i < levels; ++i)
    hex += kListMap + "01 82 01 01 03 81 ";
  return hex + kTrue;
}

}  // namespace

TEST(Deserialize, NestingPastTheDeepestGivesNoArray) {
  EXPECT_NE(readValue(bytesOfNestedLists(qxMaxNesting)), nullptr);
  EXPECT_EQ(readValue(bytesOfNestedLists(qxMaxNesting + 1)), nullptr);
  EXPECT_EQ(readValue(bytesOfNestedLists(100000)), nullptr);
}

TEST(Deserialize, ManyNestedTagsGiveNoArray) {
  std::string hex;
  for (int i = 0; i < 100000; ++i)
    hex += "d9d9f7";
  EXPECT_EQ(read(hex), nullptr);
}
