#include "platform/spf/grpc/internal/server/ConversationState.h"

#include <gtest/gtest.h>

namespace agent::spf::grpc_transport::internal {
namespace {

TEST(ConversationState, CallEndsWhenBothItsDirectionsHave) {
  for (const bool requestFirst : {true, false}) {
    ConversationState state;
    EXPECT_TRUE(state.beginCall());
    EXPECT_EQ(state.call(), ConversationState::Call::both);
    requestFirst ? state.endRequest() : state.endReply();
    EXPECT_EQ(state.call(), requestFirst ? ConversationState::Call::replying : ConversationState::Call::dropping);
    requestFirst ? state.endReply() : state.endRequest();
    EXPECT_EQ(state.call(), ConversationState::Call::none);
  }
}

TEST(ConversationState, CallBeginsOnlyWhenTheLastOneHasEnded) {
  ConversationState state;
  EXPECT_TRUE(state.beginCall());
  EXPECT_FALSE(state.beginCall());
  state.endRequest();
  EXPECT_FALSE(state.beginCall());
  state.endReply();
  EXPECT_TRUE(state.beginCall());
  state.endReply();
  EXPECT_FALSE(state.beginCall());
}

// A half-close ends a request that may have ended before.
TEST(ConversationState, SecondEndOfARequestChangesNothing) {
  ConversationState state;
  state.endRequest();
  EXPECT_EQ(state.call(), ConversationState::Call::none);
  state.beginCall();
  state.endRequest();
  state.endRequest();
  EXPECT_EQ(state.call(), ConversationState::Call::replying);
}

TEST(ConversationState, HalfCloseOutranksADrain) {
  ConversationState state;
  EXPECT_EQ(state.stream(), ConversationState::Stream::open);
  state.drain();
  EXPECT_EQ(state.stream(), ConversationState::Stream::draining);
  state.halfClose();
  state.drain();
  EXPECT_EQ(state.stream(), ConversationState::Stream::halfClosed);
}

// The small world of it: whichever of the three ends last, the stream is done then and not before.
TEST(ConversationState, StreamIsDoneWhenNothingIsUnderWayAndNothingCanCome) {
  for (const bool drains : {true, false})
    for (const bool handlerFirst : {true, false}) {
      ConversationState state;
      EXPECT_FALSE(state.isDone());
      state.beginCall();
      state.beginHandler();
      drains ? state.drain() : state.halfClose();
      state.endRequest();
      EXPECT_FALSE(state.isDone());
      handlerFirst ? state.endHandler() : state.endReply();
      EXPECT_FALSE(state.isDone());
      handlerFirst ? state.endReply() : state.endHandler();
      EXPECT_TRUE(state.isDone());
    }
}

TEST(ConversationState, OpenStreamIsNeverDone) {
  ConversationState state;
  EXPECT_FALSE(state.hasCarriedCalls());
  state.beginCall();
  state.endRequest();
  state.endReply();
  EXPECT_FALSE(state.isDone());
  EXPECT_TRUE(state.hasCarriedCalls());
}

}  // namespace
}  // namespace agent::spf::grpc_transport::internal
