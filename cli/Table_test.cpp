#include "cli/Table.h"

#include <gtest/gtest.h>

namespace zks {
namespace {

TEST(Table, ColumnsAreAsWideAsTheirWidestCellAndNumbersStandRight) {
  Table table({{"JOB", true}, {"NAME"}, {"STATE"}});
  table.add({"7", "fit", "running"});
  table.add({"1234", "a longer name", ""});
  EXPECT_EQ(table.text(),
            " JOB  NAME           STATE\n"
            "   7  fit            running\n"
            "1234  a longer name\n");
}

TEST(Table, HeadsStandAlone) {
  EXPECT_TRUE(Table({{"A"}}).empty());
  EXPECT_EQ(Table({{"A"}, {"B"}}).text(), "A  B\n");
}

TEST(Table, LettersOfSeveralBytesCountOnceAndNothingMovesTheCursor) {
  Table table({{"NAME"}, {"X"}});
  table.add({"größe", "1"});
  table.add({"a\nb", "2"});
  const std::string text = table.text();
  EXPECT_NE(text.find("größe   1\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("a\nb"), std::string::npos) << text;
}

TEST(Table, LabelsPutValuesBelowEachOther) {
  EXPECT_EQ(labelled({{"Job", "7"}, {"Priority", "0"}, {"Key", ""}}), "Job:       7\nPriority:  0\nKey:\n");
}

}  // namespace
}  // namespace zks
