// How handlers get their threads: a bound, a line before it, and all that goes on without a handler meanwhile.
#include <grpcpp/create_channel.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/spf/core/Closable.h"
#include "platform/spf/grpc/TransportsTest.h"
#include "platform/spf/grpc/transport.grpc.pb.h"

namespace agent::spf::testing {
namespace {

using grpc_transport::Server;

class HandlerLine : public ::testing::Test {
 protected:
  HandlerLine() {
    service_->add("echo", echo);
    service_->add("block", [this](ServerCall&) {
      entered_.set_value();
      awaitEvent(mayGoOn_);
    });
    service_->add("note", [this](ServerCall&) { ++noted_; });
    service_->add("untilCancelled", [this](ServerCall& served) {
      std::promise<void> cancelled;
      served.onCancel([&] { cancelled.set_value(); });
      entered_.set_value();
      awaitEvent(cancelled);
    });
    service_->limitRequests({1000, "daemon --max-request"});
  }

  core::Invokable& serve(std::size_t handlersAtOnce) {
    grpc_transport::ServerOptions options;
    options.address = directory_.address();
    options.handlersAtOnce = handlersAtOnce;
    server_ = std::make_unique<Server>(service_, options);
    client_ = grpc_transport::connect(server_->address());
    return *client_;
  }

  // Occupies one handler until mayGoOn_.
  core::testing::ReplyFuture block() {
    auto reply = start(*client_, "block", sourceOf(""));
    awaitEvent(entered_);
    return reply;
  }

  std::unique_ptr<v1::Transport::Stub> stub() const {
    return v1::Transport::NewStub(grpc::CreateChannel(server_->address(), grpc::InsecureChannelCredentials()));
  }

  static v1::Frame callFrame(const std::string& method) {
    v1::Frame frame;
    frame.mutable_call()->set_protocol_version(1);
    frame.mutable_call()->set_method(method);
    return frame;
  }

  // What the protocol does not allow, anywhere in a stream of a client.
  static v1::Frame violation() {
    v1::Frame frame;
    frame.mutable_reply();
    return frame;
  }

  static grpc::Status statusOf(grpc::ClientReaderWriter<v1::Frame, v1::Frame>& stream) {
    for (v1::Frame frame; stream.Read(&frame);) {
    }
    return stream.Finish();
  }

  TemporaryDirectory directory_;
  std::promise<void> entered_;
  std::promise<void> mayGoOn_;
  std::atomic<int> noted_{0};
  std::shared_ptr<core::Service> service_ = std::make_shared<core::Service>();
  std::unique_ptr<Server> server_;
  std::shared_ptr<core::Invokable> client_;
};

TEST_F(HandlerLine, NoMoreHandlersRunAtOnceThanAllowedAndAllCallsAreServed) {
  constexpr int kMost = 3;
  std::atomic<int> running{0};
  service_->add("count", [&](ServerCall& served) {
    EXPECT_LE(++running, kMost + 1);  // a quick one runs beside them
    readAll(served.request());
    --running;
  });
  core::Invokable& client = serve(kMost);
  std::vector<core::testing::ReplyFuture> replies;
  for (int i = 0; i < 100; ++i)
    replies.push_back(start(client, "count", sourceOf(patternOf(500))));
  for (auto& reply : replies)
    EXPECT_EQ(readAll(*await(reply)->getImportedIstream()), "");
}

TEST_F(HandlerLine, WhatNeedsNoHandlerIsAnsweredWhileAllAreBusy) {
  serve(1);
  auto blocked = block();
  // Connecting makes a call of a method that there is none of.
  const auto other = grpc_transport::connect(server_->address());
  for (const auto& [method, nbytes, why] :
       {std::tuple("none", 1, "has no method \"none\""), std::tuple("echo", 1001, "daemon --max-request")})
    EXPECT_THAT(textOfOnly(chainThrownBy([&, m = method, n = nbytes] {
                             call(*other, m, patternOf(static_cast<std::size_t>(n)));
                           }),
                           core::ErrorLevel::Kind::framework),
                HasSubstr(why));
  mayGoOn_.set_value();
  await(blocked);
}

TEST_F(HandlerLine, HandlerIsToldOfACancelWhileAllAreBusy) {
  serve(1);
  std::stop_source giveUp;
  auto waiting = start(*client_, "untilCancelled", sourceOf(""), {giveUp.get_token()});
  awaitEvent(entered_);
  auto next = start(*client_, "echo", sourceOf("next"));
  giveUp.request_stop();
  EXPECT_THROW(await(waiting), Terminated);
  EXPECT_EQ(readAll(*await(next)->getImportedIstream()), "next");
}

TEST_F(HandlerLine, CallCancelledInLineNeverReachesItsHandler) {
  serve(1);
  auto blocked = block();
  const auto peer = stub();
  grpc::ClientContext context;
  const auto stream = peer->Converse(&context);
  stream->Write(callFrame("note"));
  stream->Write(violation());
  EXPECT_EQ(statusOf(*stream).error_code(), grpc::StatusCode::INVALID_ARGUMENT);  // the service has cancelled the call
  mayGoOn_.set_value();
  await(blocked);
  EXPECT_EQ(call(*client_, "echo", std::string("behind it")), "behind it");
  EXPECT_EQ(noted_, 0);
}

TEST_F(HandlerLine, CallBehindAViolationNeverRuns) {
  serve(8);
  const auto peer = stub();
  for (int round = 0; round < 50; ++round) {
    grpc::ClientContext context;
    const auto stream = peer->Converse(&context);
    v1::Frame note = callFrame("note");
    note.set_end(true);
    stream->Write(violation());
    stream->Write(note);
    EXPECT_EQ(statusOf(*stream).error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  }
  EXPECT_EQ(call(*client_, "echo", std::string("after it")), "after it");
  EXPECT_EQ(noted_, 0);
}

}  // namespace
}  // namespace agent::spf::testing
