#include "cli/npy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <vector>

#include "cli/CliError.h"
#include "cli/testing/arrayParts.h"
#include "cli/testing/files.h"
#include "cli/testing/saveNpy.h"
#include "platform/files/testing/TemporaryDirectory.h"

namespace zks {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Npy : public testing::Test {
 protected:
  std::string path(const std::string& name = "a.npy") const { return directory_.path() + "/" + name; }

  std::string write(const std::string& bytes) const {
    writeFile(path(), bytes);
    return path();
  }

  void save(const qxArray* array) const { saveNpy(path(), array); }

  // A file of version 1 with this dictionary and these data.
  std::string file(const std::string& dictionary, const std::string& data) const {
    std::string header = dictionary + "\n";
    std::string bytes("\x93NUMPY\x01\x00", 8);
    bytes += static_cast<char>(header.size() & 0xFF);
    bytes += static_cast<char>(header.size() >> 8);
    return write(bytes + header + data);
  }

  std::string refusal(const std::string& name) const {
    try {
      readNpy(name);
    } catch (const CliError& error) {
      return error.what();
    }
    return "accepted";
  }

  files::testing::TemporaryDirectory directory_;
};

template <class T>
std::string bytesOf(const std::vector<T>& values) {
  std::string bytes(values.size() * sizeof(T), '\0');
  std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

TEST_F(Npy, FortranOrderIsTakenAsItLies) {
  const auto array =
      readNpy(file("{'descr': '<f8', 'fortran_order': True, 'shape': (2, 3), }", bytesOf<double>({1, 2, 3, 4, 5, 6})));
  EXPECT_THAT(dimensions(array), ElementsAre(2, 3));
  EXPECT_THAT(elements<double>(array), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(Npy, RowMajorOrderIsTurnedIntoColumnMajor) {
  const auto array = readNpy(file("{'descr': '<i2', 'fortran_order': False, 'shape': (2, 3, 2), }",
                                  bytesOf<std::int16_t>({0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11})));
  EXPECT_THAT(dimensions(array), ElementsAre(2, 3, 2));
  // Element (i, j, k) lies at 6i + 2j + k in the file.
  EXPECT_THAT(elements<std::int16_t>(array), ElementsAre(0, 6, 2, 8, 4, 10, 1, 7, 3, 9, 5, 11));
}

TEST_F(Npy, VectorIsAColumnAndNoDimensionsAreAScalar) {
  const auto vector =
      readNpy(file("{'descr': '<u4', 'fortran_order': False, 'shape': (3,), }", bytesOf<std::uint32_t>({7, 8, 9})));
  EXPECT_THAT(dimensions(vector), ElementsAre(3, 1));
  EXPECT_THAT(elements<std::uint32_t>(vector), ElementsAre(7, 8, 9));
  const auto scalar = readNpy(file("{'descr': '<f4', 'fortran_order': False, 'shape': (), }", bytesOf<float>({2.5F})));
  EXPECT_THAT(dimensions(scalar), ElementsAre(1, 1));
  EXPECT_THAT(elements<float>(scalar), ElementsAre(2.5F));
}

TEST_F(Npy, BigEndianPartsAreTurned) {
  const auto numbers = readNpy(file("{'descr': '>i4', 'fortran_order': False, 'shape': (2,), }",
                                    std::string("\x00\x00\x01\x02\xFF\xFF\xFF\xFE", 8)));
  EXPECT_THAT(elements<std::int32_t>(numbers), ElementsAre(258, -2));
  // 1 - 2i
  const auto complex = readNpy(file("{'descr': '>c8', 'fortran_order': False, 'shape': (1,), }",
                                    std::string("\x3F\x80\x00\x00\xC0\x00\x00\x00", 8)));
  EXPECT_TRUE(qxIsComplex(complex.get()));
  EXPECT_THAT(elements<float>(complex), ElementsAre(1.0F, -2.0F));
}

TEST_F(Npy, BooleansBecomeZeroAndOne) {
  const auto array =
      readNpy(file("{'descr': '|b1', 'fortran_order': False, 'shape': (3,), }", std::string("\0\1\7", 3)));
  EXPECT_EQ(qxGetClass(array.get()), qxClass::Boolean);
  const auto* values = static_cast<const unsigned char*>(qxGetData(array.get()));
  EXPECT_THAT((std::vector<unsigned>(values, values + 3)), ElementsAre(0, 1, 1));
}

TEST_F(Npy, ArraysWithoutElementsAreRead) {
  const auto array = readNpy(file("{'descr': '<f8', 'fortran_order': False, 'shape': (0, 3), }", ""));
  EXPECT_THAT(dimensions(array), ElementsAre(0, 3));
}

TEST_F(Npy, KeysInAnyOrderAndLongSizesOfPython2AreRead) {
  const auto array = readNpy(file("{\"shape\": (2L,), 'fortran_order': False , 'descr':'<u1'}", "ab"));
  EXPECT_THAT(elements<std::uint8_t>(array), ElementsAre('a', 'b'));
}

TEST_F(Npy, EveryClassRoundTrips) {
  const std::size_t shape[] = {3, 2, 4};
  const qxClass classes[] = {qxClass::Float64, qxClass::Float32, qxClass::Int8,   qxClass::Uint8,
                             qxClass::Int16,   qxClass::Uint16,  qxClass::Int32,  qxClass::Uint32,
                             qxClass::Int64,   qxClass::Uint64,  qxClass::Boolean};
  for (const qxClass cls : classes) {
    for (const bool complex : {false, true}) {
      if (complex && cls != qxClass::Float32 && cls != qxClass::Float64)
        continue;
      const qxArrayPtr array = qxCreateNumericArray(shape, cls, complex);
      auto* bytes = static_cast<unsigned char*>(qxGetWritableData(array.get()));
      for (std::size_t i = 0; i < qxGetDataBytes(array.get()); ++i)
        bytes[i] = static_cast<unsigned char>(cls == qxClass::Boolean ? i % 3 == 0 : i * 37 % 127);
      ASSERT_TRUE(canWriteNpy(array.get()));
      save(array.get());
      EXPECT_TRUE(qxEqual(readNpy(path()).get(), array.get())) << qxClassName(cls) << " complex " << complex;
    }
  }
}

TEST_F(Npy, DataBeginAtAMultipleOf64) {
  const std::size_t shape[] = {1, 1};
  save(qxCreateNumericArray(shape, qxClass::Uint8).get());
  EXPECT_EQ((std::filesystem::file_size(path()) - 1) % 64, 0U);
}

TEST_F(Npy, ClassesWithoutANumpyTypeCannotBeWritten) {
  EXPECT_FALSE(canWriteNpy(qxCreateString(u"text").get()));
  const std::size_t shape[] = {1, 1};
  EXPECT_FALSE(canWriteNpy(qxCreateListArray(shape).get()));
  EXPECT_FALSE(canWriteNpy(qxCreateNumericArray(shape, qxClass::Int32, true).get()));
}

TEST_F(Npy, EveryTruncationIsRefused) {
  const std::size_t shape[] = {2, 2};
  save(qxCreateNumericArray(shape, qxClass::Int16).get());
  const std::string bytes = readFile(path());
  for (std::size_t length = 0; length < bytes.size(); ++length)
    EXPECT_THAT(refusal(write(bytes.substr(0, length))), HasSubstr(path())) << length;
}

TEST_F(Npy, RefusalsNameTheFileAndTheReason) {
  const struct {
    const char* dictionary;
    const char* reason;
  } cases[] = {
      {"{'descr': '<U4', 'fortran_order': False, 'shape': (1,), }", "\"<U4\""},
      {"{'descr': '<f2', 'fortran_order': False, 'shape': (1,), }", "\"<f2\""},
      {"{'descr': '<f8', 'fortran_order': Maybe, 'shape': (1,), }", "neither True nor False"},
      {"{'descr': '<f8', 'fortran_order': False, 'shape': (-1,), }", "tuple of sizes"},
      {"{'descr': '<f8', 'fortran_order': False, 'shape': (9223372036854775807, 9), }", "end early"},
      {"{'descr': '<f8', 'fortran_order': False, 'shape': (99999999999999999999,), }", "tuple of sizes"},
      {"{'descr': '<f8', 'fortran_order': False}", "lacks descr"},
      {"{'descr': [('a', '<f8')], 'fortran_order': False, 'shape': (1,), }", "lacks a string"},
      {"{'colour': 'red'}", "unknown key"},
      {"('descr')", "lacks a '{'"},
  };
  for (const auto& [dictionary, reason] : cases)
    EXPECT_THAT(refusal(file(dictionary, "12345678")), testing::AllOf(HasSubstr(reason), HasSubstr(path())));
  EXPECT_THAT(refusal(write("hello")), HasSubstr("does not begin"));
  EXPECT_THAT(refusal(write(std::string("\x93NUMPY\x04\x00\x00\x00\x00\x00", 12))), HasSubstr("version 4"));
  EXPECT_THAT(refusal(path("missing.npy")), HasSubstr("No such file"));
  EXPECT_THAT(refusal(directory_.path()), HasSubstr("it is a directory"));
}

}  // namespace
}  // namespace zks
