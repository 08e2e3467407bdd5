// Items of several GiB, run by hand: they take minutes, disk and memory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>

#include "cli/testing/ZksFixture.h"

namespace zks {
namespace {

using testing::HasSubstr;

constexpr std::size_t kMiB = std::size_t{1} << 20;
constexpr std::size_t kGiB = std::size_t{1} << 30;

class ZksLarge : public ZksFixture {
 protected:
  void SetUp() override { startDaemon(); }

  // Whole MiBs of bytes that differ from one MiB to the next.
  void writeLargeFile(const std::string& name, std::size_t nbytes, const std::string& head = "") const {
    std::FILE* file = std::fopen(path(name).c_str(), "wb");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(std::fwrite(head.data(), 1, head.size(), file), head.size());
    std::string piece = someBytes(kMiB);
    for (std::size_t done = 0; done < nbytes; done += kMiB) {
      std::snprintf(piece.data(), 32, "%zu", done);
      ASSERT_EQ(std::fwrite(piece.data(), 1, piece.size(), file), piece.size());
    }
    ASSERT_EQ(std::fclose(file), 0);
  }

  void expectSame(const Words& words) {
    const auto outcome = zks(words);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
    EXPECT_THAT(outcome.output, HasSubstr("same"));
    std::cout << outcome.output << "peak memory of zks: " << outcome.peakMemoryKiB / 1024 << " MiB\n";
  }
};

std::string npyHead(const std::string& descr, const std::string& shape) {
  std::string text = "{'descr': '" + descr + "', 'fortran_order': True, 'shape': (" + shape + "), }";
  text.resize(117, ' ');
  return std::string("\x93NUMPY\x01\x00\x76\x00", 10) + text + "\n";
}

TEST_F(ZksLarge, FileOfOneGiBComesBack) {
  writeLargeFile("f", kGiB);
  expectSame({"echo", "--file", "f"});
}

TEST_F(ZksLarge, PlainBytesOfOneGiBComeBack) {
  writeLargeFile("f", kGiB);
  expectSame({"echo", "--plain", "@f"});
}

TEST_F(ZksLarge, ArrayOfOneGiBComesBack) {
  writeLargeFile("a.npy", kGiB, npyHead("<f8", "128, 1024, 1024"));
  expectSame({"echo", "--array", "@a.npy"});
}

TEST_F(ZksLarge, MessageOfOneGiBComesBack) {
  writeLargeFile("f", kGiB);
  // Too long for a command line: the file names the message's only field.
  const std::string head = R"({"@type":"parallel.zksmessages.TaskDescription","argv":[")";
  writeFile(path("m.json"), head + std::string(kGiB, 'x') + "\"]}");
  expectSame({"echo", "--protobuf", "@m.json"});
}

TEST_F(ZksLarge, FileOfFiveGiBComesBack) {
  writeLargeFile("f", 5 * kGiB);
  expectSame({"echo", "--file", "f"});
}

TEST_F(ZksLarge, ArrayOfThreeGiBComesBack) {
  writeLargeFile("a.npy", 3 * kGiB, npyHead("<f8", "384, 1024, 1024"));
  expectSame({"echo", "--array", "@a.npy"});
}

TEST_F(ZksLarge, FileOfOneGiBComesDownWithoutPilingUpInMemory) {
  const auto outcome = zks({"run", "--output", "o", "--", "sh", "-c", "head -c 1073741824 /dev/zero > o"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
  EXPECT_EQ(std::filesystem::file_size(path("o")), kGiB);
  std::cout << "peak memory of zks: " << outcome.peakMemoryKiB << " KiB\n";
  EXPECT_LT(outcome.peakMemoryKiB, 64 * 1024);
}

}  // namespace
}  // namespace zks
