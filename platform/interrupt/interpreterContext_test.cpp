#include "platform/interrupt/interpreterContext.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using foundation::usm::InterpreterContext;

bool isActive() {
  return foundation::usm::Detail<foundation::usm::scope::Tvm>::isRequiredContextActive();
}

TEST(InterpreterContext, ThreadIsOutsideUntilItEnters) {
  EXPECT_FALSE(isActive());
  {
    const InterpreterContext context;
    EXPECT_TRUE(isActive());
  }
  EXPECT_FALSE(isActive());
}

TEST(InterpreterContext, ContextsNest) {
  const InterpreterContext outer;
  { const InterpreterContext inner; }
  EXPECT_TRUE(isActive());
}

TEST(InterpreterContext, OtherThreadsStayOutside) {
  const InterpreterContext context;
  bool activeElsewhere = true;
  std::jthread([&activeElsewhere] { activeElsewhere = isActive(); }).join();
  EXPECT_FALSE(activeElsewhere);
  EXPECT_TRUE(isActive());
}

}  // namespace
