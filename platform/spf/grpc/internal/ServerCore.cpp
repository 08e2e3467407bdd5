#include "platform/spf/grpc/internal/ServerCore.h"

#include <grpcpp/server_builder.h>

#include <system_error>
#include <utility>

#include "platform/spf/core/errors.h"
#include "platform/spf/grpc/internal/address.h"
#include "platform/spf/grpc/internal/flowControl.h"
#include "platform/spf/grpc/internal/grpcTime.h"
#include "platform/spf/grpc/internal/keepGrpcRunning.h"
#include "platform/spf/grpc/internal/transportSecurity.h"

namespace agent::spf::grpc_transport::internal {

namespace {

void setArguments(grpc::ServerBuilder& builder, const ServerOptions& options) {
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);  // two services at one port would share its calls
  if (!options.credentials) {
    builder.AddChannelArgument(GRPC_ARG_HTTP2_BDP_PROBE, 0);
    builder.AddChannelArgument(GRPC_ARG_HTTP2_STREAM_LOOKAHEAD_BYTES, kWindowBytes);
  }
  builder.SetMaxReceiveMessageSize(static_cast<int>(kMaxFrameBytes));
  builder.SetMaxSendMessageSize(-1);
  // Clients may ask every few seconds whether the connection still lives.
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, 5'000);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PING_STRIKES, 0);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, millisecondsForGrpc(options.keepaliveInterval));
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, millisecondsForGrpc(options.keepaliveTimeout));
}

}  // namespace

ServerCore::ServerCore(std::shared_ptr<const core::Service> service, const ServerOptions& options)
    : service_(std::move(service)), options_(options), address_(options.address) {
  listen();
  queue_->start();
  acceptNext();
}

void ServerCore::listen() {
  checkAddress(address_);
  keepGrpcRunning();
  std::string why = whyUnguarded(address_, options_.credentials, options_.plainText);
  if (why.empty())
    why = whyNotListening(address_);
  if (why.empty()) {
    grpc::ServerBuilder builder;
    setArguments(builder, options_);
    int port = 0;
    builder.AddListeningPort(address_, serverCredentials(options_.credentials), &port);
    builder.RegisterAsyncGenericService(&generic_);
    queue_ = std::make_unique<ServerQueue>(builder.AddCompletionQueue(), workers_);
    server_ = builder.BuildAndStart();
    if (server_ != nullptr && port != 0) {
      if (!isUnixAddress(address_))
        address_ = hostOf(address_) + ":" + std::to_string(port);
      return;
    }
    why = "the address cannot be used";
  }
  if (queue_ != nullptr)
    queue_->shutdown();
  throw FrameworkError("Cannot listen at " + address_ + ": " + why + ".");
}

void ServerCore::runBlocking(const std::function<void()>& task) {
  try {
    workers_.run(task);
  } catch (const std::system_error&) {
    task();
  }
}

void ServerCore::acceptNext() {
  auto stream = std::make_shared<ServerStream>(*this);
  {
    const std::lock_guard lock(mutex_);
    ++streamCount_;
    if (closed_)
      return;
    std::erase_if(streams_, [](const auto& weak) { return weak.expired(); });
    streams_.push_back(stream);
  }
  stream->accept();
}

bool ServerCore::isDraining() {
  const std::lock_guard lock(mutex_);
  return draining_;
}

void ServerCore::conversing() {
  const std::lock_guard lock(mutex_);
  ++conversingCount_;
}

void ServerCore::gone(bool wasConversing) {
  const std::lock_guard lock(mutex_);
  --streamCount_;
  if (wasConversing)
    --conversingCount_;
  someGone_.notify_all();
}

// Until no call is left, or the grace time is over. The server still listens, for those who ask how it is.
void ServerCore::drain(std::chrono::milliseconds grace) {
  std::unique_lock lock(mutex_);
  someGone_.wait_for(lock, grace, [this] { return conversingCount_ == 0; });
  closed_ = true;
}

ServerCore::~ServerCore() {
  std::vector<std::weak_ptr<ServerStream>> streams;
  {
    const std::lock_guard lock(mutex_);
    draining_ = true;
    streams.swap(streams_);
  }
  for (const auto& weak : streams)
    if (const auto stream = weak.lock())
      stream->drain();
  drain(options_.grace);
  server_->Shutdown(std::chrono::system_clock::now());
  {
    std::unique_lock lock(mutex_);
    someGone_.wait(lock, [this] { return streamCount_ == 0; });
  }
  queue_->shutdown();
  workers_.join();
}

}  // namespace agent::spf::grpc_transport::internal
