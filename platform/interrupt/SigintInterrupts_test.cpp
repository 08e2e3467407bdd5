#include "platform/interrupt/SigintInterrupts.h"

#include <gtest/gtest.h>

#include "platform/interrupt/utInterruptState.h"

namespace {

volatile std::sig_atomic_t earlierHandlerCalls = 0;

void earlierHandler(int /*signal*/) {
  earlierHandlerCalls = earlierHandlerCalls + 1;
}

TEST(SigintInterrupts, SigintBecomesAPendingInterruptWhileItLives) {
  const SigintInterrupts interrupts;
  ASSERT_EQ(std::raise(SIGINT), 0);
  EXPECT_TRUE(utInterruptState::isPending());
  EXPECT_THROW(utInterruptState::ThrowIfInterruptPending(), Corvane::System::InterruptException);
}

TEST(SigintInterrupts, EarlierHandlerIsPutBack) {
  const auto before = std::signal(SIGINT, earlierHandler);
  { const SigintInterrupts interrupts; }
  ASSERT_EQ(std::raise(SIGINT), 0);
  std::signal(SIGINT, before);
  EXPECT_EQ(earlierHandlerCalls, 1);
  EXPECT_FALSE(utInterruptState::isPending());
}

}  // namespace
