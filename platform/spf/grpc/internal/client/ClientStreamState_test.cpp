#include "platform/spf/grpc/internal/client/ClientStreamState.h"

#include <gtest/gtest.h>

namespace agent::spf::grpc_transport::internal {
namespace {

using Stream = ClientStreamState::Stream;
using Request = ClientStreamState::Request;
using Reply = ClientStreamState::Reply;
using Due = ClientStreamState::Due;

ClientStreamState carrying(Request request) {
  ClientStreamState state;
  EXPECT_TRUE(state.take());
  if (request != Request::sending)
    state.beginEndOfRequest();
  if (request == Request::ended) {
    EXPECT_EQ(state.endRequest(), Due::nothing);
  }
  EXPECT_EQ(state.request(), request);
  return state;
}

TEST(ClientStreamState, ReplyThatEndsLastReleasesTheStream) {
  ClientStreamState state = carrying(Request::ended);
  EXPECT_TRUE(state.beginReply());
  EXPECT_EQ(state.stream(), Stream::carrying);
  EXPECT_EQ(state.endReply(), Due::release);
  EXPECT_EQ(state.stream(), Stream::free);
}

TEST(ClientStreamState, WriterThatReturnsLastReleasesTheStream) {
  ClientStreamState state = carrying(Request::ending);
  EXPECT_TRUE(state.beginReply());
  EXPECT_EQ(state.endReply(), Due::nothing);
  EXPECT_EQ(state.stream(), Stream::carrying);
  EXPECT_EQ(state.endRequest(), Due::release);
  EXPECT_EQ(state.stream(), Stream::free);
}

TEST(ClientStreamState, ReplyThatEndsBeforeTheRequestBreaksTheStreamOff) {
  for (const bool hasHead : {true, false}) {
    ClientStreamState state = carrying(Request::sending);
    if (hasHead) {
      EXPECT_TRUE(state.beginReply());
    }
    EXPECT_EQ(state.endReply(), Due::breakOff);
  }
}

TEST(ClientStreamState, ReplyBeginsOnce) {
  ClientStreamState state = carrying(Request::sending);
  EXPECT_EQ(state.reply(), Reply::awaited);
  EXPECT_TRUE(state.beginReply());
  EXPECT_EQ(state.reply(), Reply::begun);
  EXPECT_FALSE(state.beginReply());
  state.endReply();
  EXPECT_FALSE(state.beginReply());
}

TEST(ClientStreamState, FreeStreamCarriesTheNextCallFromItsBeginning) {
  ClientStreamState state = carrying(Request::ended);
  state.beginReply();
  state.endReply();
  EXPECT_TRUE(state.take());
  EXPECT_EQ(state.request(), Request::sending);
  EXPECT_EQ(state.reply(), Reply::awaited);
}

TEST(ClientStreamState, BrokenOffStreamTakesNoCallAndIsNeverReleased) {
  ClientStreamState unused;
  unused.breakOff();
  EXPECT_FALSE(unused.take());
  for (const bool requestFirst : {true, false}) {
    ClientStreamState state = carrying(Request::ending);
    state.breakOff();
    EXPECT_EQ(requestFirst ? state.endRequest() : state.endReply(), Due::nothing);
    EXPECT_EQ(requestFirst ? state.endReply() : state.endRequest(), Due::nothing);
    EXPECT_EQ(state.stream(), Stream::brokenOff);
    EXPECT_FALSE(state.take());
  }
}

}  // namespace
}  // namespace agent::spf::grpc_transport::internal
