#include "platform/interrupt/XExceptionTester.h"

#include <gtest/gtest.h>

#include "platform/interrupt/utInterruptState.h"

namespace {

using xtester::ArmedTester;
using xtester::CreateTesterByName;
using xtester::GetTesterByName;
using xtester::XExceptionTester;

TEST(XExceptionTester, NoTesterIsActiveAtFirst) {
  EXPECT_EQ(XExceptionTester::staticTesterMode, -1);
  CreateTesterByName(nullptr, nullptr, "point");
  EXPECT_EQ(GetTesterByName(nullptr, nullptr, "point"), nullptr);
}

TEST(XExceptionTester, ArmedPointIsFoundWhileTheArmingLives) {
  {
    const ArmedTester armed("armed point");
    EXPECT_NE(XExceptionTester::staticTesterMode, -1);
    CreateTesterByName(nullptr, nullptr, "armed point");
    CreateTesterByName(nullptr, nullptr, "another point");
    XExceptionTester* tester = GetTesterByName(nullptr, nullptr, "armed point");
    ASSERT_NE(tester, nullptr);
    EXPECT_EQ(tester->name(), "armed point");
    EXPECT_EQ(GetTesterByName(nullptr, nullptr, "another point"), nullptr);
  }
  EXPECT_EQ(GetTesterByName(nullptr, nullptr, "armed point"), nullptr);
  EXPECT_EQ(XExceptionTester::staticTesterMode, -1);
}

TEST(XExceptionTester, PointThatNoCodeNamedIsNotFound) {
  const ArmedTester armed("never registered");
  EXPECT_EQ(GetTesterByName(nullptr, nullptr, "never registered"), nullptr);
}

TEST(XExceptionTester, ArmingsOfOnePointNest) {
  CreateTesterByName(nullptr, nullptr, "nested");
  const ArmedTester outer("nested");
  { const ArmedTester inner("nested"); }
  EXPECT_NE(GetTesterByName(nullptr, nullptr, "nested"), nullptr);
  EXPECT_NE(XExceptionTester::staticTesterMode, -1);
}

TEST(XExceptionTester, EmulatedCtrlCIsAPendingInterrupt) {
  CreateTesterByName(nullptr, nullptr, "ctrl c");
  const ArmedTester armed("ctrl c");
  GetTesterByName(nullptr, nullptr, "ctrl c")->emulateCtrlC();
  EXPECT_THROW(utInterruptState::ThrowIfInterruptPending(), Corvane::System::InterruptException);
}

}  // namespace
