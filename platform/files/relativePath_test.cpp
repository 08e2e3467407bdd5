#include "platform/files/relativePath.h"

#include <gtest/gtest.h>

#include <string>

namespace files {
namespace {

TEST(RelativePath, PathsThatStayInsideAreGood) {
  for (const char* path : {"a", "a/b", "a/b/c", ".a", "..a", "a..", "a/...", " ", "a b/\n"})
    EXPECT_TRUE(isRelativePath(path)) << path;
}

TEST(RelativePath, PathsThatMayLeadElsewhereAreNot) {
  for (const char* path :
       {"", "/", "/a", "a/", "a//b", ".", "..", "./a", "../a", "a/.", "a/..", "a/../b", "a/./b", "//"})
    EXPECT_FALSE(isRelativePath(path)) << path;
  EXPECT_FALSE(isRelativePath(std::string_view("a\0b", 3)));
}

TEST(RelativePath, FirstPartEndsAtTheSlash) {
  EXPECT_EQ(firstPart("a/b/c"), "a");
  EXPECT_EQ(firstPart("abc"), "abc");
}

}  // namespace
}  // namespace files
