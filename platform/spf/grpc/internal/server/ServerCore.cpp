#include "platform/spf/grpc/internal/server/ServerCore.h"

#include <grpcpp/resource_quota.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "platform/errors/systemError.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/grpc/internal/endpoint/address.h"
#include "platform/spf/grpc/internal/endpoint/flowControl.h"
#include "platform/spf/grpc/internal/endpoint/grpcTime.h"
#include "platform/spf/grpc/internal/endpoint/keepGrpcRunning.h"
#include "platform/spf/grpc/internal/endpoint/transportSecurity.h"
#include "platform/spf/grpc/internal/wire/Frame.h"

namespace agent::spf::grpc_transport::internal {

using core::internal::WorkerThreads;
using parallel::threads::MutexLock;

namespace {

// Of the headers of one call, which are a path and a token.
constexpr int kMaxMetadataBytes = 8 << 10;
// How many streams that have ended may be kept in mind before they are looked for.
constexpr std::size_t kForgottenStreams = 64;

void setArguments(grpc::ServerBuilder& builder, const ServerOptions& options) {
  if (!options.credentials) {
    builder.AddChannelArgument(GRPC_ARG_HTTP2_BDP_PROBE, 0);
    builder.AddChannelArgument(GRPC_ARG_HTTP2_STREAM_LOOKAHEAD_BYTES, kWindowBytes);
  }
  builder.SetMaxReceiveMessageSize(static_cast<int>(kMaxFrameBytes));
  builder.SetMaxSendMessageSize(-1);
  // A compressed message has no size until it is inflated.
  for (const auto algorithm : {GRPC_COMPRESS_DEFLATE, GRPC_COMPRESS_GZIP})
    builder.SetCompressionAlgorithmSupportStatus(algorithm, false);
  builder.AddChannelArgument(GRPC_ARG_MAX_METADATA_SIZE, kMaxMetadataBytes);
  builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, static_cast<int>(options.maxStreamsPerConnection));
  if (options.maxMessageMemory)
    builder.SetResourceQuota(grpc::ResourceQuota("zks").Resize(*options.maxMessageMemory));
  builder.AddChannelArgument(GRPC_ARG_SERVER_HANDSHAKE_TIMEOUT_MS, millisecondsForGrpc(options.handshakeTimeout));
  // Clients may ask every few seconds whether the connection still lives.
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, 5'000);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PING_STRIKES, 0);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, millisecondsForGrpc(options.keepaliveInterval));
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, millisecondsForGrpc(options.keepaliveTimeout));
}

}  // namespace

ServerCore::ServerCore(std::shared_ptr<const core::Service> service, const ServerOptions& options)
    : service_(std::move(service)), options_(options) {
  listen();
  start();
  acceptNext();
}

void ServerCore::listen() {
  checkAddress(options_.address);
  const std::string why = whyUnguarded(options_.address, options_.credentials, options_.plainText);
  if (!why.empty())
    throw FrameworkError("Cannot listen at " + options_.address + ": " + why + ".");
  listening_ = std::make_unique<ListeningSockets>(options_.address, options_.keepaliveTimeout);
}

void ServerCore::start() {
  keepGrpcRunning();
  prepareFrames();
  const std::string why = tryToStart();
  if (why.empty())
    return;
  if (server_ != nullptr)
    server_->Shutdown(std::chrono::system_clock::now());
  queue_->shutdown();
  throw FrameworkError("Cannot serve at " + address() + ": " + why + ".");
}

// Says why it cannot; empty when it can. All threads that the service cannot do without are made here.
std::string ServerCore::tryToStart() {
  using Builder = grpc::ServerBuilder;
  Builder builder;
  setArguments(builder, options_);
  connections_ = builder.experimental().AddExternalConnectionAcceptor(
      Builder::experimental_type::ExternalConnectionType::FROM_FD, serverCredentials(options_.credentials));
  builder.RegisterAsyncGenericService(&generic_);
  queue_ = std::make_unique<ServerQueue>(builder.AddCompletionQueue());
  try {
    handlers_ = std::make_unique<WorkerThreads>(WorkerThreads::Options{.least = 1, .most = options_.handlersAtOnce});
    notices_ = std::make_unique<WorkerThreads>(WorkerThreads::Options{.least = 1, .most = 1});
    makeAcceptor();
    queue_->start();
    server_ = builder.BuildAndStart();
    if (server_ == nullptr)
      return "gRPC does not start";
    acceptor_->start();
  } catch (const std::system_error& e) {
    return "the system gives the service no thread (" + errors::systemErrorText(e.code().value()) + ")";
  }
  return {};
}

void ServerCore::makeAcceptor() {
  const Acceptor::Limits limits{
      options_.maxConnections, options_.maxConnectionsPerPeer,
      std::min(options_.keepaliveInterval, kLongestTime / 2) + std::min(options_.keepaliveTimeout, kLongestTime / 2)};
  acceptor_ = std::make_unique<Acceptor>(*listening_, limits, [this](int listener, files::UniqueFd connection) {
    grpc::experimental::ExternalConnectionAcceptor::NewConnectionParameters parameters;
    parameters.listener_fd = listener;
    parameters.fd = connection.release();
    connections_->HandleNewConnection(&parameters);
  });
}

void ServerCore::acceptNext() {
  auto stream = std::make_shared<ServerStream>(*this);
  {
    const MutexLock lock(mutex_);
    ++streamCount_;
    if (state_ == State::closed)
      return;
    if (streams_.size() > 2 * streamCount_ + kForgottenStreams)
      std::erase_if(streams_, [](const auto& weak) { return weak.expired(); });
    streams_.push_back(stream);
  }
  stream->accept();
}

bool ServerCore::isDraining() {
  const MutexLock lock(mutex_);
  return state_ != State::serving;
}

void ServerCore::conversationBegun() {
  const MutexLock lock(mutex_);
  ++conversationCount_;
}

void ServerCore::conversationOver() {
  const MutexLock lock(mutex_);
  --conversationCount_;
  changed_.notifyAll();
}

void ServerCore::streamGone() {
  const MutexLock lock(mutex_);
  --streamCount_;
  changed_.notifyAll();
}

// Until no call is left, or the grace time is over. The server still listens, for those who ask how it is.
void ServerCore::drain(std::chrono::milliseconds grace) {
  MutexLock lock(mutex_);
  changed_.waitFor(lock, grace, [this]() ZKS_REQUIRES(mutex_) { return conversationCount_ == 0; });
  state_ = State::closed;
}

ServerCore::~ServerCore() {
  std::vector<std::weak_ptr<ServerStream>> streams;
  {
    const MutexLock lock(mutex_);
    state_ = State::draining;
    streams.swap(streams_);
  }
  for (const auto& weak : streams)
    if (const auto stream = weak.lock())
      stream->drain();
  drain(options_.grace);
  acceptor_->stop();  // what gRPC is handed after its shutdown it does not close
  listening_ = nullptr;
  server_->Shutdown(std::chrono::system_clock::now());
  {
    MutexLock lock(mutex_);
    changed_.wait(lock, [this]() ZKS_REQUIRES(mutex_) { return streamCount_ == 0; });
  }
  queue_->shutdown();
}

}  // namespace agent::spf::grpc_transport::internal
