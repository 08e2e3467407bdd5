#include "cli/ContentCheck.h"

#include <gtest/gtest.h>

#include "cli/testing/files.h"
#include "platform/files/testing/TemporaryDirectory.h"
#include "transport/streams/FunctionalByteSink.h"

namespace zks {
namespace {

class ContentChecks : public testing::Test {
 protected:
  bool isSame(const std::string& original, const std::string& came) const {
    writeFile(path(), original);
    ContentCheck check(path());
    for (const char& byte : came)
      check.write(reinterpret_cast<const std::byte*>(&byte), 1);
    return check.isSame();
  }
  std::string path() const { return directory_.path() + "/original"; }

  files::testing::TemporaryDirectory directory_;
};

TEST_F(ContentChecks, SameBytesAreTheSame) {
  EXPECT_TRUE(isSame("", ""));
  EXPECT_TRUE(isSame("abc", "abc"));
}

TEST_F(ContentChecks, EveryDifferenceIsFound) {
  EXPECT_FALSE(isSame("abc", "abd"));
  EXPECT_FALSE(isSame("abc", "ab"));
  EXPECT_FALSE(isSame("abc", ""));
  EXPECT_FALSE(isSame("abc", "abcd"));
  EXPECT_FALSE(isSame("", "a"));
}

TEST_F(ContentChecks, OriginalThatIsGoneIsADifference) {
  ContentCheck check(path());
  EXPECT_FALSE(check.isSame());
}

TEST_F(ContentChecks, WithoutAnOriginalBytesAreCountedAndDigested) {
  ContentCheck check(std::nullopt);
  const std::string bytes = "123456789";
  check.write(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size());
  EXPECT_TRUE(check.isSame());
  EXPECT_EQ(check.digest().nbytes(), 9U);
  EXPECT_EQ(check.digest().text(), "crc32 cbf43926");
}

TEST_F(ContentChecks, BytesGoOnToTheNextSink) {
  std::string passed;
  parallel::spf::transport::FunctionalByteSink next(
      [&](const std::byte* data, std::size_t nbytes) { passed.append(reinterpret_cast<const char*>(data), nbytes); });
  ContentCheck check(std::nullopt, &next);
  for (const std::string bytes : {"abc", "", "de"})
    check.write(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size());
  EXPECT_EQ(passed, "abcde");
  EXPECT_EQ(check.digest().nbytes(), 5U);
}

}  // namespace
}  // namespace zks
