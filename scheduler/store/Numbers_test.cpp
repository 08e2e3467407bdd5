#include "scheduler/store/Numbers.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace parallel::scheduler::store {
namespace {

constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();

std::string raw(std::initializer_list<int> bytes) {
  std::string text;
  for (const int byte : bytes)
    text += static_cast<char>(byte);
  return text;
}

TEST(Numbers, BytesAreAsDocumented) {
  EXPECT_EQ(NumbersWriter().add(0).add(1).add(127).bytes(), raw({0x00, 0x01, 0x7F}));
  EXPECT_EQ(NumbersWriter().add(128).add(300).bytes(), raw({0x80, 0x01, 0xAC, 0x02}));
  EXPECT_EQ(NumbersWriter().add(kMost).bytes(), raw({255, 255, 255, 255, 255, 255, 255, 255, 255, 1}));
  EXPECT_EQ(NumbersWriter().addSigned(0).addSigned(-1).addSigned(1).addSigned(-64).bytes(), raw({0, 1, 2, 127}));
  EXPECT_EQ(NumbersWriter().addText("gpu").addText("").bytes(), raw({3, 'g', 'p', 'u', 0}));
}

TEST(Numbers, ComeOutAsTheyWentIn) {
  NumbersWriter out;
  out.add(kMost).addSigned(std::numeric_limits<std::int64_t>::min()).addText(std::string("a\0b", 3));
  out.addSigned(std::numeric_limits<std::int64_t>::max()).add(1ULL << 63);
  NumbersReader in(out.bytes());
  EXPECT_EQ(in.number(), kMost);
  EXPECT_EQ(in.signedNumber(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(in.text(), std::string("a\0b", 3));
  EXPECT_EQ(in.signedNumber(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(in.number(), 1ULL << 63);
  in.expectEnd();
}

TEST(Numbers, EveryTruncationIsRefused) {
  const std::string whole = NumbersWriter().add(300).addText("name").addSigned(-300).bytes();
  for (std::size_t nbytes = 0; nbytes < whole.size(); ++nbytes) {
    const std::string cut = whole.substr(0, nbytes);
    NumbersReader in(cut);
    EXPECT_THROW((in.number(), in.text(), in.signedNumber()), BadNumbers) << nbytes;
  }
}

TEST(Numbers, WhatIsTooLongIsRefused) {
  const std::string endless(11, '\x80');
  EXPECT_THROW(NumbersReader(endless).number(), BadNumbers);
  const std::string more = NumbersWriter().add(1).add(2).bytes();
  NumbersReader in(more);
  in.number();
  EXPECT_THROW(in.expectEnd(), BadNumbers);
}

}  // namespace
}  // namespace parallel::scheduler::store
