#include "platform/array/ValuePath.h"

#include <gtest/gtest.h>

TEST(ValuePath, WholeValueIsTheTopLevel) {
  EXPECT_EQ(ValuePath().text(), "the top level");
  EXPECT_EQ(ValuePath().level(), 0U);
}

TEST(ValuePath, StepsReadFromTheOutside) {
  const std::string name = "speed";
  const ValuePath top;
  const ValuePath element = top.listElement(2);
  const ValuePath field = element.field(0, name);
  const ValuePath last = field.listElement(13);
  EXPECT_EQ(last.text(), "{2}(0).speed{13}");
  EXPECT_EQ(last.level(), 3U);
}
