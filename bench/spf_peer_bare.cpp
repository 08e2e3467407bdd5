// Bare gRPC through its generic interface, completion queues polled by the one thread that works: the floor.
#include <grpcpp/create_channel.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/server_builder.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "bench/spf_peers_internal.h"

namespace bench {

namespace {

constexpr int kMessageLimit = 16 << 20;

std::size_t storeMessage(const grpc::ByteBuffer& message, char* to, std::size_t room) {
  std::vector<grpc::Slice> slices;
  if (!message.Dump(&slices).ok())
    throw std::runtime_error("unreadable message");
  std::size_t done = 0;
  for (const grpc::Slice& slice : slices) {
    const std::size_t part = std::min(slice.size(), room - done);
    std::memcpy(to + done, slice.begin(), part);
    done += part;
  }
  return done;
}

grpc::ByteBuffer bufferOf(const char* bytes, std::size_t size) {
  const grpc::Slice slice(bytes, size, grpc::Slice::STATIC_SLICE);
  return grpc::ByteBuffer(&slice, 1);
}

std::shared_ptr<grpc::ChannelCredentials> channelCredentials(const std::string& address) {
  const auto credentials = clientCredentials(address);
  if (!credentials)
    return grpc::InsecureChannelCredentials();
  return grpc::SslCredentials({credentials->authority, credentials->privateKey, credentials->certificate});
}

std::shared_ptr<grpc::ServerCredentials> listenerCredentials(const std::string& address) {
  const auto credentials = serverCredentials(address);
  if (!credentials)
    return grpc::InsecureServerCredentials();
  grpc::SslServerCredentialsOptions options(GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
  options.pem_root_certs = credentials->authority;
  options.pem_key_cert_pairs.push_back({credentials->privateKey, credentials->certificate});
  return grpc::SslServerCredentials(options);
}

// One call of the server, driven by its operations' tags. Method /bench/sink stores and answers one byte at the end,
// the others send each message back.
class ServedStream {
 public:
  ServedStream(grpc::AsyncGenericService& service, grpc::ServerCompletionQueue& queue, std::vector<char>& store)
      : service_(service), queue_(queue), store_(store), stream_(&context_) {
    service_.RequestCall(&context_, &stream_, &queue_, &queue_, this);
  }

  void proceed(bool ok) {
    switch (state_) {
      case State::accepting:
        if (!ok)
          return delete this;
        new ServedStream(service_, queue_, store_);
        sink_ = context_.method() == "/bench/sink";
        return read();
      case State::reading:
        if (!ok)
          return finish();
        if (!sink_)
          return write(message_);
        stored_ += storeMessage(message_, store_.data() + stored_, store_.size() - stored_);
        return read();
      case State::writing:
        return ok ? read() : finish();
      case State::finishing:
        return delete this;
    }
  }

 private:
  enum class State { accepting, reading, writing, finishing };

  void read() {
    state_ = State::reading;
    stream_.Read(&message_, this);
  }
  void write(const grpc::ByteBuffer& message) {
    state_ = State::writing;
    stream_.Write(message, this);
  }
  void finish() {
    state_ = State::finishing;
    stream_.Finish(grpc::Status::OK, this);
  }

  grpc::AsyncGenericService& service_;
  grpc::ServerCompletionQueue& queue_;
  std::vector<char>& store_;
  grpc::GenericServerContext context_;
  grpc::GenericServerAsyncReaderWriter stream_;
  grpc::ByteBuffer message_;
  State state_ = State::accepting;
  bool sink_ = false;
  std::size_t stored_ = 0;
};

class BarePeer : public Peer {
 public:
  BarePeer(const std::string& address, std::size_t frameBytes, bool unary) : frameBytes_(frameBytes), unary_(unary) {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(kMessageLimit);
    channel_ = grpc::CreateCustomChannel(withoutFamily(address), channelCredentials(address), arguments);
    if (!channel_->WaitForConnected(std::chrono::system_clock::now() + std::chrono::seconds(10)))
      throw std::runtime_error("no connection");
    stub_ = std::make_unique<grpc::GenericStub>(channel_);
  }

  ~BarePeer() override {
    if (pingStream_ != nullptr) {
      pingStream_->WritesDone(tag(1));
      await(1);
      grpc::Status status;
      pingStream_->Finish(&status, tag(2));
      await(2);
    }
    queue_.Shutdown();
    void* got = nullptr;
    bool ok = false;
    while (queue_.Next(&got, &ok)) {
    }
  }

  void sink(const std::vector<char>& payload) override {
    grpc::ClientContext context;
    const auto stream = open(context, "/bench/sink");
    for (std::size_t offset = 0; offset < payload.size(); offset += frameBytes_) {
      stream->Write(frameAt(payload, offset), tag(1));
      await(1);
    }
    finish(*stream);
  }

  void echo(const std::vector<char>& payload, std::vector<char>& back) override {
    grpc::ClientContext context;
    const auto stream = open(context, "/bench/echo");
    grpc::ByteBuffer message;
    std::size_t sent = 0;
    std::size_t got = 0;
    stream->Read(&message, tag(2));
    stream->Write(frameAt(payload, sent), tag(1));
    while (got < payload.size()) {
      if (awaitAny() == 1) {
        sent += frameBytes_;
        if (sent < payload.size())
          stream->Write(frameAt(payload, sent), tag(1));
        continue;
      }
      got += storeMessage(message, back.data() + got, back.size() - got);
      if (got < payload.size())
        stream->Read(&message, tag(2));
    }
    while (sent < payload.size()) {  // the last write's own completion
      await(1);
      sent += frameBytes_;
    }
    finish(*stream);
  }

  void ping() override {
    if (unary_)
      return pingUnary();
    if (pingStream_ == nullptr)
      pingStream_ = open(pingContext_, "/bench/ping");
    grpc::ByteBuffer reply;
    pingStream_->Read(&reply, tag(2));
    pingStream_->Write(bufferOf(ping_.data(), ping_.size()), tag(1));
    awaitAny();
    awaitAny();
    checkPing(reply);
  }

  void pings(int calls, int inFlight) override {
    std::vector<std::unique_ptr<UnaryCall>> under(static_cast<std::size_t>(inFlight));
    int started = 0;
    const auto start = [&](std::size_t slot) {
      if (started++ < calls)
        under[slot] = startUnary(tag(static_cast<std::intptr_t>(slot)));
    };
    for (std::size_t slot = 0; slot < under.size(); ++slot)
      start(slot);
    for (int answered = 0; answered < calls; ++answered) {
      const auto slot = static_cast<std::size_t>(awaitAny());
      checkUnary(*under[slot]);
      start(slot);
    }
  }

 private:
  struct UnaryCall {
    grpc::ClientContext context;
    grpc::ByteBuffer reply;
    grpc::Status status;
    std::unique_ptr<grpc::GenericClientAsyncResponseReader> call;
  };

  using Stream = grpc::GenericClientAsyncReaderWriter;

  static void* tag(std::intptr_t number) { return reinterpret_cast<void*>(number); }

  std::unique_ptr<UnaryCall> startUnary(void* tag) {
    auto started = std::make_unique<UnaryCall>();
    started->call =
        stub_->PrepareUnaryCall(&started->context, "/bench/unary", bufferOf(ping_.data(), ping_.size()), &queue_);
    started->call->StartCall();
    started->call->Finish(&started->reply, &started->status, tag);
    return started;
  }

  static void checkUnary(const UnaryCall& call) {
    if (!call.status.ok())
      throw std::runtime_error(call.status.error_message());
    checkPing(call.reply);
  }

  void pingUnary() {
    const auto call = startUnary(tag(3));
    await(3);
    checkUnary(*call);
  }

  static void checkPing(const grpc::ByteBuffer& reply) {
    char bytes[kPingBytes];
    if (storeMessage(reply, bytes, sizeof bytes) != kPingBytes)
      throw std::runtime_error("short ping");
  }

  std::unique_ptr<Stream> open(grpc::ClientContext& context, const std::string& method) {
    auto stream = stub_->PrepareCall(&context, method, &queue_);
    stream->StartCall(tag(4));
    await(4);
    return stream;
  }

  grpc::ByteBuffer frameAt(const std::vector<char>& payload, std::size_t offset) const {
    return bufferOf(payload.data() + offset, std::min(frameBytes_, payload.size() - offset));
  }

  void finish(Stream& stream) {
    stream.WritesDone(tag(1));
    await(1);
    grpc::Status status;
    stream.Finish(&status, tag(5));
    await(5);
    if (!status.ok())
      throw std::runtime_error(status.error_message());
  }

  std::intptr_t awaitAny() {
    void* got = nullptr;
    bool ok = false;
    if (!queue_.Next(&got, &ok) || !ok)
      throw std::runtime_error("bare gRPC operation failed");
    return reinterpret_cast<std::intptr_t>(got);
  }

  void await(std::intptr_t wanted) {
    if (awaitAny() != wanted)
      throw std::runtime_error("unexpected completion");
  }

  std::size_t frameBytes_;
  bool unary_;
  std::shared_ptr<grpc::Channel> channel_;
  std::unique_ptr<grpc::GenericStub> stub_;
  grpc::CompletionQueue queue_;
  std::vector<char> ping_ = std::vector<char>(kPingBytes, 'p');
  grpc::ClientContext pingContext_;
  std::unique_ptr<Stream> pingStream_;
};

}  // namespace

void serveBare(const std::string& address) {
  std::vector<char> store(kStoreBytes, 1);
  grpc::AsyncGenericService service;
  grpc::ServerBuilder builder;
  int port = 0;
  builder.AddListeningPort(withoutFamily(address), listenerCredentials(address), &port);
  builder.SetMaxReceiveMessageSize(kMessageLimit);
  builder.RegisterAsyncGenericService(&service);
  const auto queue = builder.AddCompletionQueue();
  const auto server = builder.BuildAndStart();
  new ServedStream(service, *queue, store);
  announceAddress(address.starts_with("unix:") ? address : familyOf(address) + "127.0.0.1:" + std::to_string(port));
  std::thread poller([&] {
    void* got = nullptr;
    bool ok = false;
    while (queue->Next(&got, &ok))
      static_cast<ServedStream*>(got)->proceed(ok);
  });
  waitForEndOfInput();
  server->Shutdown();
  queue->Shutdown();
  poller.join();
}

std::unique_ptr<Peer> connectBare(const std::string& address, std::size_t frameBytes, bool unary) {
  return std::make_unique<BarePeer>(address, frameBytes, unary);
}

}  // namespace bench
