#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "platform/logging/sinks.h"

namespace {

using namespace parallel::logging;

TEST(Levels, EachWordIncludesThoseBeforeIt) {
  EXPECT_EQ(levelsFromWord("off"), 0U);
  EXPECT_EQ(levelsFromWord("error"), 256U);
  EXPECT_EQ(levelsFromWord("warning"), 256U | 8U);
  EXPECT_EQ(levelsFromWord("info"), 256U | 8U | 4U);
  EXPECT_EQ(levelsFromWord("detail"), 256U | 8U | 4U | 16U);
  EXPECT_EQ(levelsFromWord("trace"), 256U | 8U | 4U | 16U | 2U);
}

TEST(Levels, UnknownWordIsRefusedWithTheListOfWords) {
  for (const char* word : {"", "Error", "all", "errors"}) {
    try {
      levelsFromWord(word);
      ADD_FAILURE() << word << " was taken";
    } catch (const std::invalid_argument& error) {
      EXPECT_EQ(error.what(), "\"" + std::string(word) +
                                  "\" is not a log level; the levels are: off error warning info detail trace");
    }
  }
}

TEST(Levels, NamesAreTheWords) {
  EXPECT_EQ(levelName(kError), "error");
  EXPECT_EQ(levelName(kWarning), "warning");
  EXPECT_EQ(levelName(kInfo), "info");
  EXPECT_EQ(levelName(kDetail), "detail");
  EXPECT_EQ(levelName(kTrace), "trace");
  EXPECT_EQ(levelName(0), "other");
  EXPECT_EQ(levelName(64), "other");
}

}  // namespace
