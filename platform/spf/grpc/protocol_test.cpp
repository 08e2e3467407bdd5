// The wire against peers that are not ours: stock clients with generated stubs, and clients and servers that break the
// protocol.
#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/server_builder.h>
#include <grpcpp/server_context.h>
#include <gtest/gtest.h>

#include <chrono>

#include "platform/spf/grpc/TransportsTest.h"
#include "platform/spf/grpc/transport.grpc.pb.h"

namespace agent::spf::testing {
namespace {

using core::ErrorLevel;
using grpc_transport::connect;
using grpc_transport::Server;
using ::testing::AllOf;

using Kind = ErrorLevel::Kind;
using Stream = grpc::ClientReaderWriter<v1::Frame, v1::Frame>;

// A service, and a stock client of it with generated stubs.
class ForeignClient : public ::testing::Test {
 protected:
  void SetUp() override {
    service_->add("echo", echo);
    service_->add("fail", [](ServerCall& call) {
      readAll(call.request());
      throw FrameworkError("no \xFF luck" + std::string(10'000, '.'));
    });
    service_->add("failAtLength", [](ServerCall&) { throw FrameworkError(std::string(3 << 20, '.')); });
    service_->add("read", [this](ServerCall& call) {
      call.reply().flush();
      try {
        readAll(call.request());
        outcome_.set_value({});
      } catch (...) {
        outcome_.set_value(core::flattenErrorChain(std::current_exception()));
        throw;
      }
    });
    service_->add("notify", [](ServerCall& call) {
      call.notify("one");
      call.notify("two");
      call.reply() << "x";
    });
    service_->limitRequests({1'000'000, "daemon --max-request"});
    server_ = std::make_unique<Server>(service_, grpc_transport::ServerOptions{directory_.address(), {}});
    stub_ = v1::Transport::NewStub(grpc::CreateChannel(server_->address(), grpc::InsecureChannelCredentials()));
    stream_ = stub_->Converse(&context_);
  }

  // The handler of "read" saw this; empty when its request ended well.
  core::ErrorChain outcome() {
    auto future = outcome_.get_future();
    return await(future);
  }

  static v1::Frame callFrame(const std::string& method, const std::string& data, bool end) {
    v1::Frame frame;
    frame.mutable_call()->set_protocol_version(1);
    frame.mutable_call()->set_method(method);
    frame.set_data(data);
    frame.set_end(end);
    return frame;
  }

  // The rest of the stream: frames until it ends, and its status.
  std::vector<v1::Frame> readRest() {
    std::vector<v1::Frame> frames;
    for (v1::Frame frame; stream_->Read(&frame);)
      frames.push_back(frame);
    status_ = stream_->Finish();
    return frames;
  }

  TemporaryDirectory directory_;
  std::shared_ptr<core::Service> service_ = std::make_shared<core::Service>();
  std::promise<core::ErrorChain> outcome_;
  std::unique_ptr<Server> server_;
  std::unique_ptr<v1::Transport::Stub> stub_;
  grpc::ClientContext context_;
  std::unique_ptr<Stream> stream_;
  grpc::Status status_;
};

TEST_F(ForeignClient, OneCallWithHalfCloseIsAnsweredAndTheStreamEndsWell) {
  stream_->Write(callFrame("echo", "abc", true));
  stream_->WritesDone();
  const auto frames = readRest();
  ASSERT_EQ(frames.size(), 1U);
  EXPECT_EQ(frames[0].reply().protocol_version(), 1U);
  EXPECT_FALSE(frames[0].reply().has_size());
  EXPECT_EQ(frames[0].data(), "abc");
  EXPECT_TRUE(frames[0].end());
  EXPECT_TRUE(status_.ok()) << status_.error_message();
}

TEST_F(ForeignClient, SeveralCallsShareOneStreamAndFramesMayBeCutAnywhere) {
  for (int i = 0; i < 3; ++i) {
    stream_->Write(callFrame("echo", "a", false));
    v1::Frame more;
    more.set_data(std::string(100'000, 'b'));
    stream_->Write(more);
    stream_->Write(v1::Frame());
    v1::Frame end;
    end.set_end(true);
    stream_->Write(end);
    std::string data;
    for (v1::Frame frame; !frame.end() && stream_->Read(&frame);)
      data += frame.data();
    EXPECT_TRUE(data == "a" + std::string(100'000, 'b')) << i;
  }
  stream_->WritesDone();
  EXPECT_TRUE(readRest().empty());
  EXPECT_TRUE(status_.ok());
}

// The end of the stream must not overtake the reply, whenever the half-close is seen.
TEST_F(ForeignClient, ReplyComesBeforeTheEndOfItsStreamEachTime) {
  for (int i = 0; i < 300; ++i) {
    grpc::ClientContext context;
    const auto stream = stub_->Converse(&context);
    stream->Write(callFrame("echo", "abc", true));
    stream->WritesDone();
    v1::Frame reply;
    ASSERT_TRUE(stream->Read(&reply)) << i;
    EXPECT_EQ(reply.data(), "abc");
    while (stream->Read(&reply)) {
    }
    EXPECT_TRUE(stream->Finish().ok());
  }
}

TEST_F(ForeignClient, ErrorComesAsDataAndInShortFormAsStatus) {
  stream_->Write(callFrame("fail", "", true));
  stream_->WritesDone();
  const auto frames = readRest();
  ASSERT_EQ(frames.size(), 1U);
  ASSERT_EQ(frames[0].error().levels_size(), 1);
  EXPECT_EQ(frames[0].error().levels(0).kind(), v1::ErrorChain::Level::FRAMEWORK);
  EXPECT_EQ(frames[0].error().levels(0).text(), "no \xFF luck" + std::string(10'000, '.'));
  EXPECT_EQ(status_.error_code(), grpc::StatusCode::FAILED_PRECONDITION);
  EXPECT_THAT(status_.error_message(),
              AllOf(::testing::StartsWith("no \xEF\xBF\xBD luck"), ::testing::EndsWith("[...]")));
  EXPECT_LT(status_.error_message().size(), 1300U);
}

TEST_F(ForeignClient, OtherProtocolVersionIsRefusedNamingBoth) {
  v1::Frame frame = callFrame("echo", "", true);
  frame.mutable_call()->set_protocol_version(7);
  stream_->Write(frame);
  stream_->WritesDone();
  const auto frames = readRest();
  ASSERT_EQ(frames.size(), 1U);
  EXPECT_EQ(frames[0].error().levels(0).text(), "The client speaks protocol version 7, this service speaks version 1.");
}

TEST_F(ForeignClient, RequestThatEndsWithAnErrorRaisesItInTheHandler) {
  stream_->Write(callFrame("read", "some", false));
  v1::Frame failed;
  failed.mutable_error()->add_levels()->set_text("the disk broke");
  failed.mutable_error()->mutable_levels(0)->set_kind(v1::ErrorChain::Level::STANDARD);
  stream_->Write(failed);
  EXPECT_EQ(textOfOnly(outcome(), Kind::standard), "the disk broke");
}

TEST_F(ForeignClient, HalfCloseInTheMiddleOfARequestNeverLooksLikeItsEnd) {
  stream_->Write(callFrame("read", "some", false));
  stream_->WritesDone();
  EXPECT_THAT(textOfOnly(outcome(), Kind::terminated), HasSubstr("before the request"));
  readRest();
  EXPECT_FALSE(status_.ok());
}

TEST_F(ForeignClient, RequestOfAnotherSizeThanAnnouncedRaisesNamingBoth) {
  for (const long announced : {3L, 5L}) {
    grpc::ClientContext context;
    const auto stream = stub_->Converse(&context);
    v1::Frame frame = callFrame("echo", "four", true);
    frame.mutable_call()->set_size(announced);
    stream->Write(frame);
    v1::Frame reply;
    while (stream->Read(&reply) && !reply.has_error()) {
    }
    EXPECT_THAT(reply.error().levels(0).text(),
                AllOf(HasSubstr(" " + std::to_string(announced) + " bytes"), HasSubstr(" 4 ")));
    context.TryCancel();
    stream->Finish();
  }
}

TEST_F(ForeignClient, CancelReachesTheHandler) {
  stream_->Write(callFrame("read", "some", false));
  v1::Frame head;
  ASSERT_TRUE(stream_->Read(&head));  // the handler is there
  context_.TryCancel();
  EXPECT_NE(textOfOnly(outcome(), Kind::terminated), "another chain");
  readRest();
}

TEST_F(ForeignClient, FramesOutOfPlaceEndTheStreamWithAReason) {
  std::vector<std::pair<std::vector<v1::Frame>, const char*>> cases;
  v1::Frame data;
  data.set_data("x");
  v1::Frame reply;
  reply.mutable_reply();
  cases.push_back({{data}, "outside any call"});
  cases.push_back({{v1::Frame()}, "outside any call"});
  cases.push_back({{reply}, "a reply where a call is due"});
  cases.push_back({{callFrame("read", "", false), callFrame("echo", "", true)}, "before the last one"});
  for (const auto& [frames, why] : cases) {
    grpc::ClientContext context;
    const auto stream = stub_->Converse(&context);
    for (const v1::Frame& frame : frames)
      stream->Write(frame);
    v1::Frame got;
    while (stream->Read(&got)) {
    }
    const grpc::Status status = stream->Finish();
    EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
    EXPECT_THAT(status.error_message(), HasSubstr(why));
  }
}

TEST_F(ForeignClient, RequestOfUnknownSizeUpToTheLimitIsRead) {
  stream_->Write(callFrame("read", std::string(1'000'000, 'x'), true));
  EXPECT_EQ(outcome(), core::ErrorChain());
}

TEST_F(ForeignClient, RequestOfUnknownSizeAboveTheLimitFailsWhileItIsRead) {
  stream_->Write(callFrame("read", std::string(1'000'001, 'x'), true));
  EXPECT_EQ(outcome().size(), 1U);
  v1::Frame reply;
  while (!reply.has_error())
    ASSERT_TRUE(stream_->Read(&reply));
  EXPECT_THAT(reply.error().levels(0).text(), HasSubstr("daemon --max-request"));
}

// Stock clients take messages of up to 4 MiB, and this one names no capability.
TEST_F(ForeignClient, LongErrorIsCutWithAMarkForAClientThatTakesNoParts) {
  stream_->Write(callFrame("failAtLength", "", true));
  v1::Frame reply;
  ASSERT_TRUE(stream_->Read(&reply));
  ASSERT_EQ(reply.error().levels_size(), 1);
  EXPECT_LT(reply.ByteSizeLong(), std::size_t{2} << 20);
  EXPECT_THAT(reply.error().levels(0).text(), HasSubstr("more bytes were left out]"));
}

TEST_F(ForeignClient, ClientThatTakesPartsGetsALongErrorInFramesOfModerateSize) {
  v1::Frame frame = callFrame("failAtLength", "", true);
  frame.mutable_call()->add_capabilities(v1::ERROR_PARTS);
  frame.mutable_call()->add_capabilities(static_cast<v1::Capability>(77));  // of a later day
  stream_->Write(frame);
  std::size_t bytes = 0;
  for (v1::Frame reply; !reply.has_error();) {
    ASSERT_TRUE(stream_->Read(&reply));
    EXPECT_LT(reply.ByteSizeLong(), std::size_t{1} << 19);
    for (const auto& level : (reply.has_error() ? reply.error() : reply.error_part()).levels())
      bytes += level.text().size();
  }
  EXPECT_EQ(bytes, std::size_t{3} << 20);
}

TEST_F(ForeignClient, NoticesComeInFramesOfTheirOwnBeforeTheHead) {
  v1::Frame frame = callFrame("notify", "", true);
  frame.mutable_call()->add_capabilities(v1::NOTICES);
  stream_->Write(frame);
  stream_->WritesDone();
  const std::vector<v1::Frame> frames = readRest();
  ASSERT_EQ(frames.size(), 3U);
  EXPECT_EQ(frames[0].ShortDebugString(), "notice: \"one\"");
  EXPECT_EQ(frames[1].ShortDebugString(), "notice: \"two\"");
  EXPECT_TRUE(frames[2].has_reply());
  EXPECT_EQ(frames[2].notice(), "");
}

TEST_F(ForeignClient, ClientThatDoesNotTakeNoticesGetsNone) {
  v1::Frame frame = callFrame("notify", "", true);
  frame.mutable_call()->add_capabilities(v1::ERROR_PARTS);
  stream_->Write(frame);
  stream_->WritesDone();
  const std::vector<v1::Frame> frames = readRest();
  ASSERT_EQ(frames.size(), 1U);
  EXPECT_TRUE(frames[0].has_reply());
}

TEST_F(ForeignClient, UnknownGrpcMethodIsUnimplemented) {
  grpc::GenericStub stub(grpc::CreateChannel(server_->address(), grpc::InsecureChannelCredentials()));
  grpc::CompletionQueue queue;
  grpc::ClientContext context;
  grpc::ByteBuffer reply;
  grpc::Status status;
  const auto unary = stub.PrepareUnaryCall(&context, "/agent.spf.v1.Transport/Other", grpc::ByteBuffer(), &queue);
  unary->StartCall();
  unary->Finish(&reply, &status, nullptr);
  void* tag = nullptr;
  bool ok = false;
  ASSERT_TRUE(queue.Next(&tag, &ok));
  EXPECT_EQ(status.error_code(), grpc::StatusCode::UNIMPLEMENTED);
}

// Any bytes instead of a frame: the stream ends with a reason, and the service goes on.
TEST_F(ForeignClient, BytesThatAreNotAFrameEndTheirStreamOnly) {
  using RawStream = grpc::ClientReaderWriter<grpc::ByteBuffer, grpc::ByteBuffer>;
  const auto channel = grpc::CreateChannel(server_->address(), grpc::InsecureChannelCredentials());
  const grpc::internal::RpcMethod method("/agent.spf.v1.Transport/Converse", grpc::internal::RpcMethod::BIDI_STREAMING);
  for (const std::string bytes : {"\xFF", "\x0A\x7F", "\x1A\xFF\xFF\xFF\xFF\x7F", "\x07", "\x0C", "\x0A\x02\x12\x05"}) {
    grpc::ClientContext context;
    const std::unique_ptr<RawStream> stream(
        grpc::internal::ClientReaderWriterFactory<grpc::ByteBuffer, grpc::ByteBuffer>::Create(channel.get(), method,
                                                                                              &context));
    const grpc::Slice slice(bytes);
    stream->Write(grpc::ByteBuffer(&slice, 1));
    grpc::ByteBuffer got;
    while (stream->Read(&got)) {
    }
    const grpc::Status status = stream->Finish();
    EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT) << ::testing::PrintToString(bytes);
    EXPECT_THAT(status.error_message(), HasSubstr("malformed frame"));
  }
  stream_->Write(callFrame("echo", "still there", true));
  v1::Frame reply;
  ASSERT_TRUE(stream_->Read(&reply));
  EXPECT_EQ(reply.data(), "still there");
}

TEST_F(ForeignClient, FrameAboveTheLimitIsRefused) {
  stream_->Write(callFrame("read", std::string(17 << 20, 'x'), true));
  readRest();
  EXPECT_EQ(status_.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
}

// A server with generated stubs that answers each stream's first frame with what the test scripts.
class ScriptedServer : public ::testing::Test, public v1::Transport::Service {
 protected:
  void SetUp() override {
    grpc::ServerBuilder builder;
    int port = 0;  // on a socket file the client would make a call of its own, to see that somebody is there
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    builder.RegisterService(this);
    server_ = builder.BuildAndStart();
    client_ = connect("127.0.0.1:" + std::to_string(port), plainClient());
  }

  void TearDown() override {
    client_ = nullptr;
    server_->Shutdown(std::chrono::system_clock::now());
  }

  grpc::Status Converse(grpc::ServerContext*, grpc::ServerReaderWriter<v1::Frame, v1::Frame>* stream) override {
    v1::Frame frame;
    if (!stream->Read(&frame))
      return grpc::Status::OK;
    for (const v1::Frame& reply : script_)
      stream->Write(reply);
    while (stays_ && stream->Read(&frame)) {
    }
    return status_;
  }

  static v1::Frame replyFrame(const std::string& data, bool end) {
    v1::Frame frame;
    frame.mutable_reply()->set_protocol_version(1);
    frame.set_data(data);
    frame.set_end(end);
    return frame;
  }

  std::string textOfCall(Kind kind) {
    return textOfOnly(chainThrownBy([&] { call(*client_, "any", std::string("x")); }), kind);
  }

  std::vector<v1::Frame> script_;
  bool stays_ = true;
  grpc::Status status_;
  std::unique_ptr<grpc::Server> server_;
  std::shared_ptr<core::Invokable> client_;
};

TEST_F(ScriptedServer, ReplyInOneFrameIsRead) {
  script_ = {replyFrame("hello", true)};
  EXPECT_EQ(call(*client_, "any", std::string()), "hello");
}

TEST_F(ScriptedServer, OtherProtocolVersionIsRefusedNamingBoth) {
  script_ = {replyFrame("", true)};
  script_[0].mutable_reply()->set_protocol_version(9);
  EXPECT_THAT(textOfCall(Kind::framework),
              AllOf(HasSubstr("version 9"), HasSubstr("version 1"), HasSubstr("127.0.0.1:")));
}

TEST_F(ScriptedServer, FramesOutOfPlaceFailTheCall) {
  v1::Frame data;
  data.set_data("x");
  script_ = {data};
  EXPECT_THAT(textOfCall(Kind::framework), HasSubstr("a reply without a head"));
  v1::Frame aCall;
  aCall.mutable_call();
  script_ = {aCall};
  EXPECT_THAT(textOfCall(Kind::framework), HasSubstr("a call where a reply is due"));
  script_ = {replyFrame("x", false), replyFrame("y", true)};
  EXPECT_THAT(textOfCall(Kind::framework), HasSubstr("a second reply"));
}

TEST_F(ScriptedServer, ReplyOfAnotherSizeThanAnnouncedFailsNamingBoth) {
  for (const long announced : {3L, 5L}) {
    script_ = {replyFrame("four", true)};
    script_[0].mutable_reply()->set_size(announced);
    EXPECT_THAT(textOfCall(Kind::framework),
                AllOf(HasSubstr(" " + std::to_string(announced) + " bytes"), HasSubstr(" 4 ")));
  }
}

TEST_F(ScriptedServer, StreamThatEndsBeforeTheReplyTerminatesTheCall) {
  stays_ = false;
  EXPECT_THAT(textOfCall(Kind::terminated), AllOf(HasSubstr("during call \"any\""), HasSubstr("127.0.0.1:")));
}

TEST_F(ScriptedServer, StreamThatEndsInTheReplyTerminatesTheReader) {
  stays_ = false;
  script_ = {replyFrame("half", false)};
  const auto reply = openReply(*client_, "any", sourceOf(""));
  char bytes[5] = {};
  EXPECT_THROW(reply->read(bytes, 5), Terminated);
  EXPECT_STREQ(bytes, "half");
}

TEST_F(ScriptedServer, StatusOfTheStreamChoosesTheErrorKind) {
  stays_ = false;
  status_ = {grpc::StatusCode::INVALID_ARGUMENT, "bad frame"};
  EXPECT_THAT(textOfCall(Kind::framework), HasSubstr("bad frame"));
  status_ = {grpc::StatusCode::DEADLINE_EXCEEDED, "late"};
  EXPECT_THAT(textOfCall(Kind::timeout), HasSubstr("late"));
  status_ = {grpc::StatusCode::INTERNAL, "broken"};
  EXPECT_THAT(textOfCall(Kind::terminated), HasSubstr("broken"));
}

TEST_F(ScriptedServer, EmptyErrorChainIsStillAnError) {
  v1::Frame frame;
  frame.mutable_error();
  script_ = {frame};
  EXPECT_THAT(textOfCall(Kind::framework), HasSubstr("without saying which"));
}

}  // namespace
}  // namespace agent::spf::testing
