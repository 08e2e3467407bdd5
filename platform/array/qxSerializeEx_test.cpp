#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/array/testing/goldenArrays.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

using array_testing::Bytes;
using array_testing::bytesFromHex;
using array_testing::deserialised;
using array_testing::hexText;
using array_testing::serialised;
using Dimensions = std::vector<std::size_t>;

TEST(SerializeEx, DocumentedExamplesAreWrittenAsDocumented) {
  const auto documented = array_testing::documentedBytes();
  const auto arrays = array_testing::documentedArrays();
  ASSERT_EQ(documented.size(), arrays.size());
  for (const auto& [name, array] : arrays) {
    ASSERT_TRUE(documented.contains(name)) << name;
    EXPECT_EQ(hexText(serialised(array.get())), hexText(documented.at(name))) << name;
  }
}

TEST(SerializeEx, DocumentedExamplesAreReadAsDocumented) {
  const auto documented = array_testing::documentedBytes();
  for (const auto& [name, array] : array_testing::documentedArrays()) {
    const qxArrayPtr read = deserialised(documented.at(name));
    ASSERT_NE(read, nullptr) << name;
    EXPECT_TRUE(qxEqual(read.get(), array.get())) << name;
  }
}

TEST(SerializeEx, ResultIsAUint8Column) {
  const qxArrayPtr bytes(qxSerializeEx(qxCreateScalar(1.5).get(), qxSerializeDefaults));
  EXPECT_EQ(qxGetClass(bytes.get()), qxClass::Uint8);
  const qxDimensions dimensions = qxGetDimensions(bytes.get());
  EXPECT_EQ(Dimensions(dimensions.begin(), dimensions.end()), (Dimensions{21, 1}));
}

TEST(SerializeEx, OptionsChangeNothing) {
  const qxArrayPtr value = qxCreateScalar(1.5);
  const qxArrayPtr plain(qxSerializeEx(value.get(), 0));
  const qxArrayPtr usual(qxSerializeEx(value.get(), qxSerializeDefaults));
  EXPECT_TRUE(qxEqual(plain.get(), usual.get()));
}

namespace {

struct NumericCase {
  qxClass cls;
  const char* realTag;
  std::size_t elementBytes;
};

class NumericClass : public testing::TestWithParam<NumericCase> {};

// The payload 00 01 02 ... for an array of two elements.
std::string countingHex(std::size_t nbytes) {
  Bytes bytes;
  for (std::size_t i = 0; i < nbytes; ++i)
    bytes.push_back(static_cast<unsigned char>(i));
  return hexText(bytes);
}

qxArrayPtr countingRow(qxClass cls, bool complex) {
  qxArrayPtr array = qxCreateNumericArray(Dimensions{1, 2}, cls, complex);
  auto* data = static_cast<unsigned char*>(qxGetWritableData(array.get()));
  for (std::size_t i = 0; i < qxGetDataBytes(array.get()); ++i)
    data[i] = static_cast<unsigned char>(i);
  return array;
}

// The head of a byte string shorter than 256 bytes.
std::string stringHead(std::size_t nbytes) {
  if (nbytes < 24)
    return hexText({static_cast<unsigned char>(0x40 + nbytes)});
  return hexText({0x58, static_cast<unsigned char>(nbytes)});
}

}  // namespace

TEST_P(NumericClass, RealIsWrittenWithItsTypedArrayTag) {
  const auto& [cls, tag, elementBytes] = GetParam();
  const std::size_t nbytes = 2 * elementBytes;
  EXPECT_EQ(hexText(serialised(countingRow(cls, false).get())),
            "d9d9f7d90410828201" + std::string("02") + tag + stringHead(nbytes) + countingHex(nbytes));
}

TEST_P(NumericClass, ComplexIsWrittenWithTheComplexTagBefore) {
  const auto& [cls, tag, elementBytes] = GetParam();
  const std::size_t nbytes = 4 * elementBytes;
  EXPECT_EQ(hexText(serialised(countingRow(cls, true).get())),
            "d9d9f7d90410828201" + std::string("02d9a7f9") + tag + stringHead(nbytes) + countingHex(nbytes));
}

TEST_P(NumericClass, BothComeBackEqual) {
  for (const bool complex : {false, true}) {
    const qxArrayPtr array = countingRow(GetParam().cls, complex);
    const qxArrayPtr back = deserialised(serialised(array.get()));
    ASSERT_NE(back, nullptr);
    EXPECT_TRUE(qxEqual(back.get(), array.get()));
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, NumericClass,
    testing::Values(NumericCase{qxClass::Float64, "d856", 8}, NumericCase{qxClass::Float32, "d855", 4},
                    NumericCase{qxClass::Int8, "d848", 1}, NumericCase{qxClass::Uint8, "d840", 1},
                    NumericCase{qxClass::Int16, "d84d", 2}, NumericCase{qxClass::Uint16, "d845", 2},
                    NumericCase{qxClass::Int32, "d84e", 4}, NumericCase{qxClass::Uint32, "d846", 4},
                    NumericCase{qxClass::Int64, "d84f", 8}, NumericCase{qxClass::Uint64, "d847", 8}),
    [](const auto& tested) { return std::string(qxClassName(tested.param.cls)); });

// The head of the byte string grows from 1 to 2, 3 and 5 bytes at these lengths.
TEST(SerializeEx, LengthsAroundEachHeadSizeComeBackEqual) {
  for (const std::size_t length : {0U, 1U, 23U, 24U, 255U, 256U, 65535U, 65536U}) {
    qxArrayPtr array = qxCreateNumericArray(Dimensions{length, 1}, qxClass::Uint8);
    for (std::uint8_t& element : qxGetWritableElements<std::uint8_t>(array.get()))
      element = 0xA5;
    const qxArrayPtr back = deserialised(serialised(array.get()));
    ASSERT_NE(back, nullptr) << length;
    EXPECT_TRUE(qxEqual(back.get(), array.get())) << length;
  }
}

TEST(SerializeEx, ManyListElementsComeBackEqual) {
  qxArrayPtr list = qxCreateListArray(Dimensions{70000, 1});
  qxSetListElement(list.get(), 69999, qxCreateBoolean(true));
  const qxArrayPtr back = deserialised(serialised(list.get()));
  ASSERT_NE(back, nullptr);
  EXPECT_TRUE(qxEqual(back.get(), list.get()));
}

TEST(SerializeEx, ManyFieldsComeBackEqual) {
  qxArrayPtr array = qxCreateStructArray({}, {});
  for (int i = 0; i < 300; ++i)
    qxSetField(array.get(), 0, "f" + std::to_string(i), qxCreateScalar(i));
  const qxArrayPtr back = deserialised(serialised(array.get()));
  ASSERT_NE(back, nullptr);
  EXPECT_TRUE(qxEqual(back.get(), array.get()));
  EXPECT_EQ(qxGetFieldNames(back.get())[299], "f299");
}

TEST(SerializeEx, LargeArrayComesBackEqual) {
  qxArrayPtr array = qxCreateNumericArray(Dimensions{1024, 1024}, qxClass::Float64);
  double next = 0;
  for (double& element : qxGetWritableElements<double>(array.get()))
    element = next++;
  const qxArrayPtr back = deserialised(serialised(array.get()));
  ASSERT_NE(back, nullptr);
  EXPECT_TRUE(qxEqual(back.get(), array.get()));
}

// --- Objects ---

TEST(SerializeEx, ObjectInsideThrowsCannotSerializeWithItsPath) {
  qxArrayPtr inner = qxCreateStructArray(Dimensions{2, 1}, {});
  qxSetField(inner.get(), 1, "engine", qxCreateObject("acme.Motor", std::make_shared<int>(1)));
  qxArrayPtr list = qxCreateListArray(Dimensions{3, 1});
  qxSetListElement(list.get(), 2, std::move(inner));
  try {
    qxSerializeEx(list.get(), qxSerializeDefaults);
    FAIL() << "nothing was thrown";
  } catch (const Exception<host::array::CannotSerialize>& error) {
    EXPECT_STREQ(error.what(),
                 "The value at {2}(1).engine is an object of class acme.Motor, which has no serialised form.");
  }
}

TEST(SerializeEx, ObjectItselfThrowsCannotSerialize) {
  const qxArrayPtr object = qxCreateObject("acme.Motor", nullptr);
  try {
    qxSerializeEx(object.get(), qxSerializeDefaults);
    FAIL() << "nothing was thrown";
  } catch (const Exception<host::array::CannotSerialize>& error) {
    EXPECT_STREQ(error.what(),
                 "The value at the top level is an object of class acme.Motor, which has no serialised form.");
  }
}

// --- Depth ---

namespace {

// A boolean with `levels` lists around it.
qxArrayPtr nestedOneElementLists(std::size_t levels) {
  qxArrayPtr value = qxCreateBoolean(true);
  for (std::size_t i = 0; i < levels; ++i) {
    qxArrayPtr list = qxCreateListArray({});
    qxSetListElement(list.get(), 0, std::move(value));
    value = std::move(list);
  }
  return value;
}

}  // namespace

TEST(SerializeEx, DeepestNestingComesBackEqual) {
  const qxArrayPtr array = nestedOneElementLists(qxMaxNesting);
  const qxArrayPtr back = deserialised(serialised(array.get()));
  ASSERT_NE(back, nullptr);
  EXPECT_TRUE(qxEqual(back.get(), array.get()));
}

TEST(SerializeEx, NestingPastTheDeepestThrowsTooDeep) {
  const qxArrayPtr array = nestedOneElementLists(qxMaxNesting + 1);
  EXPECT_THROW(qxSerializeEx(array.get(), qxSerializeDefaults), Exception<host::array::TooDeep>);
}

TEST(SerializeEx, VeryDeepNestingThrowsTooDeep) {
  const qxArrayPtr array = nestedOneElementLists(100000);
  EXPECT_THROW(qxSerializeEx(array.get(), qxSerializeDefaults), Exception<host::array::TooDeep>);
}
