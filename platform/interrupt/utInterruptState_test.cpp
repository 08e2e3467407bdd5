#include "platform/interrupt/utInterruptState.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using Corvane::System::InterruptException;

class InterruptState : public testing::Test {
 protected:
  ~InterruptState() override {
    utInterruptState::setSource({});
    utInterruptState::clear();
  }
};

TEST_F(InterruptState, NothingPendingDoesNotThrow) {
  EXPECT_FALSE(utInterruptState::isPending());
  EXPECT_NO_THROW(utInterruptState::ThrowIfInterruptPending());
}

TEST_F(InterruptState, OneRequestEndsOneOperation) {
  utInterruptState::request();
  utInterruptState::request();
  EXPECT_TRUE(utInterruptState::isPending());
  EXPECT_THROW(utInterruptState::ThrowIfInterruptPending(), InterruptException);
  EXPECT_FALSE(utInterruptState::isPending());
  EXPECT_NO_THROW(utInterruptState::ThrowIfInterruptPending());
}

TEST_F(InterruptState, ClearedRequestDoesNotThrow) {
  utInterruptState::request();
  utInterruptState::clear();
  EXPECT_NO_THROW(utInterruptState::ThrowIfInterruptPending());
}

TEST_F(InterruptState, SourceIsAskedAtEachCheck) {
  int asked = 0;
  utInterruptState::setSource([&asked] { return ++asked == 2; });
  EXPECT_NO_THROW(utInterruptState::ThrowIfInterruptPending());
  EXPECT_THROW(utInterruptState::ThrowIfInterruptPending(), InterruptException);
  EXPECT_NO_THROW(utInterruptState::ThrowIfInterruptPending());
  EXPECT_EQ(asked, 3);
}

TEST_F(InterruptState, SourceIsAskedBeforeThePendingFlagIsTaken) {
  bool pendingWhenAsked = false;
  utInterruptState::setSource([&pendingWhenAsked] {
    pendingWhenAsked = utInterruptState::isPending();
    return true;
  });
  utInterruptState::request();
  EXPECT_THROW(utInterruptState::ThrowIfInterruptPending(), InterruptException);
  EXPECT_TRUE(pendingWhenAsked);
  EXPECT_FALSE(utInterruptState::isPending());
}

TEST_F(InterruptState, ExceptionOfTheSourcePassesThroughAndKeepsTheFlag) {
  utInterruptState::setSource([]() -> bool { throw std::runtime_error("from the interpreter"); });
  utInterruptState::request();
  EXPECT_THROW(utInterruptState::ThrowIfInterruptPending(), std::runtime_error);
  EXPECT_TRUE(utInterruptState::isPending());
}

TEST_F(InterruptState, EmptyFunctionRemovesTheSource) {
  utInterruptState::setSource([] { return true; });
  utInterruptState::setSource({});
  EXPECT_NO_THROW(utInterruptState::ThrowIfInterruptPending());
}

TEST_F(InterruptState, SourceMayReplaceItself) {
  utInterruptState::setSource([] {
    utInterruptState::setSource({});
    return true;
  });
  EXPECT_THROW(utInterruptState::ThrowIfInterruptPending(), InterruptException);
  EXPECT_NO_THROW(utInterruptState::ThrowIfInterruptPending());
}

TEST_F(InterruptState, OneRequestIsTakenByOneOfManyThreads) {
  utInterruptState::request();
  std::atomic<int> taken{0};
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 4; ++thread)
    threads.emplace_back([&taken] {
      try {
        utInterruptState::ThrowIfInterruptPending();
      } catch (const InterruptException&) {
        ++taken;
      }
    });
  threads.clear();
  EXPECT_EQ(taken, 1);
}

}  // namespace
