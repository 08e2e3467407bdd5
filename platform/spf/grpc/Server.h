// Serves a Service over gRPC. Protocol: platform/spf/grpc/transport.proto and docs/protocol.md.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "platform/spf/core/Service.h"
#include "platform/spf/security/Credentials.h"

namespace agent::spf::grpc_transport {

struct ServerOptions {
  // "unix:/absolute/path" or "HOST:PORT" (port 0: the system chooses). Who may connect to a socket file is decided by
  // its permissions, which are the caller's to set up (its directory).
  std::string address;
  // How long shutdown lets calls under way finish before it cancels them.
  std::chrono::milliseconds grace{0};
  // A client that has been silent for the interval is asked for a sign of life, and its calls are cancelled when there
  // is none within the timeout.
  std::chrono::milliseconds keepaliveInterval{60'000};
  std::chrono::milliseconds keepaliveTimeout{20'000};
  // A request may pause for so long; then the handler that reads it gets Timeout. Zero: for ever.
  std::chrono::milliseconds idleTimeout{600'000};
  // How many handlers run at once, each on a thread of its own. Further calls wait in line, and so do those for which the
  // system gives no thread.
  std::size_t handlersAtOnce = 1000;
  // Connections at once: of all clients, where further ones wait until one ends; and of one address, or one process at
  // a socket file, where further ones are refused.
  std::size_t maxConnections = 1000;
  std::size_t maxConnectionsPerPeer = 500;
  // Streams at once on one connection; a client waits with further ones.
  std::size_t maxStreamsPerConnection = 1000;
  // What gRPC may hold of messages under way, of all clients together; beyond it gRPC cancels streams. Nothing: no
  // limit.
  std::optional<std::size_t> maxMessageMemory = std::nullopt;
  // A connection whose client has not shown by then who it is, and said hello, is ended.
  std::chrono::milliseconds handshakeTimeout{20'000};
  // With them: TLS, and only for clients with a certificate of the same authority and the token. TCP needs them,
  // unless...
  std::optional<security::Credentials> credentials = std::nullopt;
  // ... it is said that whoever reaches the port may call, and that nothing is encrypted.
  bool plainText = false;
};

class Server {
 public:
  // Listens at once. FrameworkError names the address when that fails.
  Server(std::shared_ptr<const core::Service> service, const ServerOptions& options);
  // Shuts down: no new calls, those under way are cancelled after the grace time, their handlers waited for.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Where it listens, with the real port, in the form that connect() takes.
  const std::string& address() const noexcept;

  // For a process that is running out of memory: ends the connection that has brought the most bytes, or the newest
  // where the kernel does not count them (a socket file). Its calls are cancelled. Returns whose it was; nothing when
  // there was none. Threads: any.
  std::optional<std::string> endHeaviestConnection();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace agent::spf::grpc_transport
