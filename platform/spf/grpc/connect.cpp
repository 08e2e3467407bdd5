#include "platform/spf/grpc/connect.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/create_channel_posix.h>
#include <grpcpp/resource_quota.h>
#include <grpcpp/support/channel_arguments.h>

#include <algorithm>
#include <climits>
#include <future>
#include <system_error>
#include <utility>

#include "platform/spf/core/Closable.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/promiseCompletingHandler.h"
#include "platform/spf/grpc/internal/client/ClientConnection.h"
#include "platform/spf/grpc/internal/client/askForAccess.h"
#include "platform/spf/grpc/internal/endpoint/address.h"
#include "platform/spf/grpc/internal/endpoint/flowControl.h"
#include "platform/spf/grpc/internal/endpoint/grpcTime.h"
#include "platform/spf/grpc/internal/endpoint/keepGrpcRunning.h"
#include "platform/spf/grpc/internal/endpoint/transportSecurity.h"
#include "platform/spf/grpc/internal/wire/Frame.h"

namespace agent::spf::grpc_transport {

namespace {

using internal::ClientCall;
using internal::ClientConnection;

constexpr std::chrono::milliseconds kPollInterval{50};

// How much longer than ours gRPC's own wait for a connection is, so that ours is the one that tells.
constexpr std::chrono::milliseconds kAttemptMargin{100};

// What the caller holds. The connection itself outlives it while a thread of its own is still in it.
class Connection : public core::Invokable, public core::Closable {
 public:
  explicit Connection(std::shared_ptr<ClientConnection> connection) : connection_(std::move(connection)) {}
  ~Connection() override { connection_->closeAndWait(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void invoke(core::CallTag tag, const std::string& method, core::CompletionHandler&& handler,
              core::GenericPayload&& request, int flags) override {
    core::internal::CallRequest checked(method, request, flags);
    connection_->invoke(std::make_shared<ClientCall>(tag, method, std::move(handler), std::move(checked)));
  }

  void close() noexcept override { connection_->close(); }

 private:
  std::shared_ptr<ClientConnection> connection_;
};

// An attempt goes on without its channel: it has to end by itself soon after we have given it up, with its socket. What
// bounds it are the pauses between attempts, of which there is never a second one here.
void boundAttempt(grpc::ChannelArguments& arguments, std::chrono::milliseconds timeout) {
  arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS,
                   internal::millisecondsForGrpc(std::min(timeout, internal::kLongestTime) + kAttemptMargin));
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, static_cast<int>(kAttemptMargin.count()));
}

// A channel over a descriptor does not keep its quota, which without an owner counts on but reclaims nothing.
struct BoundedChannel {
  grpc::ResourceQuota quota{"zks"};
  std::shared_ptr<grpc::Channel> channel;  // ends first
};

grpc::ChannelArguments channelArguments(const std::string& address, const ConnectOptions& options,
                                        const grpc::ResourceQuota& quota) {
  grpc::ChannelArguments arguments;
  boundAttempt(arguments, options.connectTimeout);
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);  // a connection of its own
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  arguments.SetInt(GRPC_ARG_ENABLE_RETRIES, 0);
  arguments.SetInt(GRPC_ARG_SERVICE_CONFIG_DISABLE_RESOLUTION, 1);
  arguments.SetInt(GRPC_ARG_CLIENT_IDLE_TIMEOUT_MS, INT_MAX);
  if (!options.credentials) {
    arguments.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0);
    arguments.SetInt(GRPC_ARG_HTTP2_STREAM_LOOKAHEAD_BYTES, internal::kWindowBytes);
  }
  arguments.SetMaxReceiveMessageSize(static_cast<int>(internal::kMaxFrameBytes));
  arguments.SetMaxSendMessageSize(-1);
  arguments.SetResourceQuota(quota);
  // A compressed message has no size until it is inflated.
  arguments.SetInt(GRPC_COMPRESSION_CHANNEL_ENABLED_ALGORITHMS_BITSET, 1 << GRPC_COMPRESS_NONE);
  if (!internal::isUnixAddress(address) || options.credentials) {  // else a LifeCheck does this
    arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, internal::millisecondsForGrpc(options.keepaliveInterval));
    arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, internal::millisecondsForGrpc(options.keepaliveTimeout));
    arguments.SetInt(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
  }
  return arguments;
}

template <class Make>
std::shared_ptr<grpc::Channel> makeChannel(const std::string& address, const ConnectOptions& options,
                                           const Make& make) {
  const auto bounded = std::make_shared<BoundedChannel>();
  bounded->quota.Resize(options.maxMessageMemory);
  bounded->channel = make(channelArguments(address, options, bounded->quota));
  return {bounded, bounded->channel.get()};
}

using Deadline = std::chrono::system_clock::time_point;

[[noreturn]] void throwTimeout(const std::string& address, const ConnectOptions& options) {
  throw Timeout("No connection to " + address + ": it did not answer within " +
                std::to_string(options.connectTimeout.count()) + " ms.");
}

[[noreturn]] void throwUnreachable(const std::string& address, const ConnectOptions& options) {
  throw FrameworkError("No connection to " + address + ": " + internal::whyUnreachable(address, options) + ".");
}

// Until when to wait before the caller is asked whether it still wants to.
Deadline nextStep(Deadline deadline) {
  return std::min(std::chrono::system_clock::now() + kPollInterval, deadline);
}

void waitUntilReady(grpc::Channel& channel, const std::string& address, const ConnectOptions& options,
                    Deadline deadline) {
  grpc_connectivity_state state = channel.GetState(true);
  while (state != GRPC_CHANNEL_READY) {
    if (std::chrono::system_clock::now() >= deadline)  // first: late, one finds that gRPC has given up as well
      throwTimeout(address, options);
    if (state == GRPC_CHANNEL_TRANSIENT_FAILURE || state == GRPC_CHANNEL_SHUTDOWN)
      throwUnreachable(address, options);
    channel.WaitForStateChange(state, nextStep(deadline));
    if (options.poll)
      options.poll();
    state = channel.GetState(true);
  }
}

// A wrong token is found when the first call is made, which is here. What else may be wrong, the connection finds out.
void requireAccess(const std::shared_ptr<grpc::Channel>& channel, const std::string& address,
                   const ConnectOptions& options, Deadline deadline) {
  const grpc::Status status = internal::askForAccess(channel, deadline, options.poll);
  if (status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED)
    throwTimeout(address, options);
  if (status.error_code() == grpc::StatusCode::UNAUTHENTICATED)
    throw FrameworkError("No connection to " + address + ": " + status.error_message() + ".");
}

std::unique_ptr<internal::UnixSocket> connectSocket(const std::string& address, const ConnectOptions& options,
                                                    Deadline deadline) {
  try {
    return std::make_unique<internal::UnixSocket>(internal::unixPath(address), deadline, options.poll);
  } catch (const std::system_error& e) {
    if (e.code() == std::errc::timed_out)
      throwTimeout(address, options);
    throwUnreachable(address, options);
  }
}

// Whoever listens at a socket file may be frozen, or speak something else.
void waitForLife(ClientConnection& connection, const ConnectOptions& options, Deadline deadline) {
  const auto answer = std::make_shared<std::promise<void>>();
  std::future<void> answered = answer->get_future();
  connection.askForLife(core::promiseCompletingHandler<void>(answer));
  while (answered.wait_until(nextStep(deadline)) != std::future_status::ready) {
    if (std::chrono::system_clock::now() >= deadline)
      throwTimeout(connection.address(), options);
    if (options.poll)
      options.poll();
  }
  if (connection.hasSeenLife())
    return;
  try {
    answered.get();
  } catch (const Terminated&) {
    throwUnreachable(connection.address(), options);
  }
}

std::shared_ptr<Connection> connectToSocketFile(const std::string& address, const ConnectOptions& options,
                                                Deadline deadline) {
  auto socket = connectSocket(address, options, deadline);
  auto channel = makeChannel(address, options, [&](const grpc::ChannelArguments& arguments) {
    return grpc::CreateCustomInsecureChannelFromFd("localhost", socket->share(), arguments);
  });
  auto connection = std::make_shared<ClientConnection>(std::move(channel), address, options, std::move(socket));
  connection->start();
  auto handle = std::make_shared<Connection>(connection);
  waitForLife(*connection, options, deadline);
  return handle;
}

}  // namespace

std::shared_ptr<core::Invokable> connect(const std::string& address, const ConnectOptions& options) {
  internal::checkAddress(address);
  internal::keepGrpcRunning();
  internal::prepareFrames();
  if (const std::string why = internal::whyUnguarded(address, options.credentials, options.plainText); !why.empty())
    throw FrameworkError("No connection to " + address + ": " + why + ".");
  const Deadline deadline = std::chrono::system_clock::now() + std::min(options.connectTimeout, internal::kLongestTime);
  if (internal::isUnixAddress(address) && !options.credentials)
    return connectToSocketFile(address, options, deadline);
  auto channel = makeChannel(address, options, [&](const grpc::ChannelArguments& arguments) {
    return grpc::CreateCustomChannel(address, internal::channelCredentials(options.credentials), arguments);
  });
  waitUntilReady(*channel, address, options, deadline);
  if (options.credentials)
    requireAccess(channel, address, options, deadline);
  auto connection = std::make_shared<ClientConnection>(std::move(channel), address, options);
  connection->start();
  return std::make_shared<Connection>(std::move(connection));
}

}  // namespace agent::spf::grpc_transport
