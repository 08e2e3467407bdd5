#include "platform/digest/Sha256.h"

#include <gtest/gtest.h>

#include <string>

namespace parallel::digest {
namespace {

constexpr const char* kOfNothing = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* kOfAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

TEST(Sha256, KnownDigests) {
  EXPECT_EQ(Digest::of("").text(), kOfNothing);
  EXPECT_EQ(Digest::of("abc").text(), kOfAbc);
}

TEST(Sha256, PiecesMakeTheWhole) {
  Sha256 sum;
  sum.add("a");
  sum.add("");
  sum.add("bc");
  EXPECT_EQ(sum.digest().text(), kOfAbc);
}

TEST(Sha256, DigestIsReadFromTextAndBytes) {
  const Digest digest = Digest::of("abc");
  EXPECT_EQ(Digest::fromText(kOfAbc), digest);
  EXPECT_EQ(Digest::fromBytes(digest.bytes()), digest);
}

TEST(Sha256, OtherTextsAndBytesAreNone) {
  const std::string text = kOfAbc;
  EXPECT_FALSE(Digest::fromText(""));
  EXPECT_FALSE(Digest::fromText(text.substr(1)));
  EXPECT_FALSE(Digest::fromText(text + "0"));
  EXPECT_FALSE(Digest::fromText("B" + text.substr(1)));
  EXPECT_FALSE(Digest::fromText("/" + text.substr(1)));
  EXPECT_FALSE(Digest::fromBytes("abc"));
}

}  // namespace
}  // namespace parallel::digest
