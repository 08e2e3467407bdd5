// The wire as it was recorded: what peers of today say, and that peers of earlier days are still understood.
#include <grpcpp/create_channel.h>
#include <grpcpp/impl/codegen/client_unary_call.h>
#include <grpcpp/impl/codegen/method_handler.h>
#include <grpcpp/impl/codegen/rpc_service_method.h>
#include <grpcpp/impl/codegen/service_type.h>
#include <grpcpp/server_builder.h>
#include <grpcpp/server_context.h>

#include <functional>
#include <sstream>

#include "platform/errors/RemoteException.h"
#include "platform/spf/grpc/TransportsTest.h"
#include "platform/spf/grpc/testing/conversations.h"
#include "platform/spf/grpc/testing/rawMessages.h"
#include "platform/spf/grpc/transport.pb.h"

namespace agent::spf::testing {
namespace {

using core::ErrorChain;

using Kind = core::ErrorLevel::Kind;
using RawClientStream = grpc::ClientReaderWriter<grpc::ByteBuffer, grpc::ByteBuffer>;
using RawServerStream = grpc::ServerReaderWriter<grpc::ByteBuffer, grpc::ByteBuffer>;

constexpr char kMethod[] = "/agent.spf.v1.Transport/Converse";

// The calls of each conversation.
std::shared_ptr<core::Service> makeService() {
  auto service = std::make_shared<core::Service>();
  service->add("echo", [](ServerCall& call) {
    const std::string bytes = readAll(call.request());
    call.setReplySize(static_cast<long>(bytes.size()));
    call.reply() << bytes;
  });
  service->add("pieces", [](ServerCall& call) {
    readAll(call.request());
    call.reply() << std::flush << "x" << std::flush << "y";
  });
  service->add("fail", [](ServerCall& call) {
    readAll(call.request());
    throw FrameworkError("no \xFF luck");
  });
  service->add("late", [](ServerCall& call) {
    readAll(call.request());
    call.reply() << "half" << std::flush;
    std::rethrow_exception(core::rebuildErrorChain(std::vector<core::ErrorLevel>{
        {Kind::identified, "parallel:test", "Outer", "first"}, {Kind::standard, "", "", "second"}}));
  });
  return service;
}

void makeCalls(core::Invokable& client) {
  EXPECT_EQ(call(client, "echo", std::string("abc")), "abc");
  const auto inPieces = [](std::ostream& out) { out << "ab" << std::flush << "c"; };
  EXPECT_EQ(readAll(*openReply(client, "pieces", sourceOf(inPieces, 3))), "xy");
  EXPECT_EQ(call(client, "echo", std::string()), "");
  EXPECT_EQ(chainThrownBy([&] { call(client, "fail", std::string()); }),
            (ErrorChain{{Kind::framework, "", "", "no \xFF luck"}}));
  EXPECT_EQ(
      chainThrownBy([&] { call(client, "none", std::string()); }),
      (ErrorChain{{Kind::framework, "", "", "The service has no method \"none\"; it has echo, fail, late, pieces."}}));
  const auto late = openReply(client, "late", sourceOf(""));
  EXPECT_EQ(chainThrownBy([&] { readAll(*late); }),
            (ErrorChain{{Kind::identified, "parallel:test", "Outer", "first"}, {Kind::standard, "", "", "second"}}));
}

bool endsTransfer(const grpc::ByteBuffer& message) {
  v1::Frame frame;
  EXPECT_TRUE(frame.ParseFromString(bytesOf(message)));
  return frame.end() || frame.has_error();
}

// One line of a conversation.
struct Line {
  char direction = '>';
  std::string bytes;
};

std::vector<Line> linesOf(const char* conversation) {
  std::vector<Line> lines;
  std::istringstream in(conversation);
  for (std::string word; in >> word;) {
    const char direction = word.at(0);
    in >> word;
    std::string bytes;
    for (std::size_t i = 0; i < word.size(); i += 2)
      bytes.push_back(static_cast<char>(std::stoi(word.substr(i, 2), nullptr, 16)));
    lines.push_back({direction, std::move(bytes)});
  }
  return lines;
}

std::string textOf(const Line& line) {
  std::ostringstream text;
  text << line.direction << ' ' << std::hex << std::uppercase;
  for (const unsigned char byte : line.bytes)
    text << (byte >> 4) << (byte & 0xF);
  return text.str();
}

// A server of raw messages: `converse` has one stream of a client, which is closed when it returns.
class RawServer : private grpc::Service {
 public:
  using Converse = std::function<void(RawServerStream&)>;

  explicit RawServer(Converse converse) : converse_(std::move(converse)) {
    const auto serve = [](RawServer* self, grpc::ServerContext*, RawServerStream* stream) {
      self->converse_(*stream);
      return grpc::Status::OK;
    };
    AddMethod(new grpc::internal::RpcServiceMethod(
        kMethod, grpc::internal::RpcMethod::BIDI_STREAMING,
        new grpc::internal::BidiStreamingHandler<RawServer, grpc::ByteBuffer, grpc::ByteBuffer>(serve, this)));
    grpc::ServerBuilder builder;
    int port = 0;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    builder.RegisterService(this);
    server_ = builder.BuildAndStart();
    address_ = "127.0.0.1:" + std::to_string(port);
  }
  ~RawServer() override { server_->Shutdown(std::chrono::system_clock::now()); }
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  const std::string& address() const noexcept { return address_; }

 private:
  const Converse converse_;
  std::string address_;
  std::unique_ptr<grpc::Server> server_;
};

// A client of raw messages, with one stream.
class RawClient {
 public:
  explicit RawClient(const std::string& address)
      : channel_(grpc::CreateChannel(address, grpc::InsecureChannelCredentials())),
        stream_(grpc::internal::ClientReaderWriterFactory<grpc::ByteBuffer, grpc::ByteBuffer>::Create(
            channel_.get(), grpc::internal::RpcMethod(kMethod, grpc::internal::RpcMethod::BIDI_STREAMING), &context_)) {
  }
  RawClientStream& stream() { return *stream_; }

 private:
  const std::shared_ptr<grpc::Channel> channel_;
  grpc::ClientContext context_;
  const std::unique_ptr<RawClientStream> stream_;
};

class Conversation : public ::testing::Test {
 protected:
  const std::string& serviceAddress() const { return service_.address(); }

 private:
  const TemporaryDirectory directory_;
  const grpc_transport::Server service_{makeService(), {directory_.address(), {}}};
};

// Passes transfers on, one after another, and writes them down. Ends with the client's stream.
void relay(RawServerStream& from, const std::string& address, std::string& record) {
  RawClient to(address);
  grpc::ByteBuffer message;
  while (from.Read(&message)) {
    record += textOf({'>', bytesOf(message)}) + "\n";
    to.stream().Write(message);
    if (!endsTransfer(message))
      continue;
    do {
      if (!to.stream().Read(&message))
        return;
      record += textOf({'<', bytesOf(message)}) + "\n";
      from.Write(message);
    } while (!endsTransfer(message));
  }
}

TEST_F(Conversation, OfTodayIsTheRecordedOne) {
  std::string record = "\n";
  const RawServer relaying([&](RawServerStream& stream) { relay(stream, serviceAddress(), record); });
  makeCalls(*grpc_transport::connect(relaying.address(), plainClient()));
  EXPECT_EQ(record, kConversation);
}

class RecordedConversation : public Conversation, public ::testing::WithParamInterface<const char*> {};

// Not one byte more than the peer of the recording knows of.
TEST_P(RecordedConversation, IsAnsweredByTheServiceOfTodayAsItWas) {
  RawClient client(serviceAddress());
  for (const Line& line : linesOf(GetParam())) {
    if (line.direction == '>') {
      client.stream().Write(messageOf(line.bytes));
      continue;
    }
    grpc::ByteBuffer message;
    ASSERT_TRUE(client.stream().Read(&message)) << textOf(line);
    EXPECT_EQ(textOf({'<', bytesOf(message)}), textOf(line));
  }
  client.stream().WritesDone();
}

void replayReplies(RawServerStream& stream, const std::vector<Line>& lines) {
  grpc::ByteBuffer message;
  for (const Line& line : lines) {
    if (line.direction == '<')
      stream.Write(messageOf(line.bytes));
    else if (!stream.Read(&message))
      return;
  }
  stream.Read(&message);  // the client's end
}

TEST_P(RecordedConversation, IsUnderstoodByTheClientOfToday) {
  const RawServer server([lines = linesOf(GetParam())](RawServerStream& stream) { replayReplies(stream, lines); });
  makeCalls(*grpc_transport::connect(server.address(), plainClient()));
}

INSTANTIATE_TEST_SUITE_P(First, RecordedConversation, ::testing::Values(kFirstConversation));
INSTANTIATE_TEST_SUITE_P(OfToday, RecordedConversation, ::testing::Values(kConversation));

}  // namespace
}  // namespace agent::spf::testing
