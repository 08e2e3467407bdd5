#include "platform/tova/internal/names.h"

#include <gtest/gtest.h>

#include "platform/tova/testing/Motor.h"

namespace tova::internal {
namespace {

TEST(Names, Identifiers) {
  for (const char* good : {"a", "Z9", "parallel", "under_score_", "createQxArray"})
    EXPECT_TRUE(isIdentifier(good)) << good;
  for (const char* bad : {"", "9a", "_a", "a b", "a.b", "a-b", "\xC3\xA9", " a", "a\n"})
    EXPECT_FALSE(isIdentifier(bad)) << bad;
}

TEST(Names, FullClassNames) {
  for (const char* good : {"a.b", "parallel.internal.cluster.SerializableData"})
    EXPECT_TRUE(isFullClassName(good)) << good;
  for (const char* bad : {"", "a", ".", "a.", ".a", "a..b", "a.9", "a b.c"})
    EXPECT_FALSE(isFullClassName(bad)) << bad;
}

TEST(Names, RequireIdentifierNamesTheBadOne) {
  EXPECT_EQ(testing::identifiedError([] { requireIdentifier("a.b"); }),
            "host:classes:BadName: \"a.b\" is not a name: a letter, then letters, digits and underscores.");
  EXPECT_EQ(testing::identifiedError([] { requireIdentifier("ab"); }), "");
}

}  // namespace
}  // namespace tova::internal
