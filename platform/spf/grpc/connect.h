// Connects to a Service over gRPC.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/spf/core/ByteLimit.h"
#include "platform/spf/core/Invokable.h"
#include "platform/spf/security/Credentials.h"

namespace agent::spf::grpc_transport {

struct ConnectOptions {
  std::chrono::milliseconds connectTimeout{10'000};
  // A service that has been silent for the interval is asked for a sign of life, and is given up when there is none
  // within the timeout: the calls under way get Timeout.
  std::chrono::milliseconds keepaliveInterval{20'000};
  std::chrono::milliseconds keepaliveTimeout{10'000};
  // A reply that has begun may pause for so long; then its reader gets Timeout and the call is cancelled. A wait for
  // the reply's beginning has no limit. Zero: neither has this.
  std::chrono::milliseconds idleTimeout{600'000};
  // A larger reply fails its call: before its first byte is handed on, or, where the service does not announce its
  // size, while it is read.
  std::optional<core::ByteLimit> replyLimit;
  // What gRPC may hold of messages under way; beyond it gRPC cancels streams. A service could else send one message of
  // any size.
  std::size_t maxMessageMemory = std::size_t{1} << 30;
  // Asked about every 50 ms while waiting for the connection; may throw to give up (an interrupt).
  std::function<void()> poll;
  // Runs once, on a thread of the framework, when the connection is found dead. May be empty.
  std::function<void()> onDisconnect;
  // With them: TLS, which the service must speak as well, and the token. A socket file needs none, TCP does, unless...
  std::optional<security::Credentials> credentials = std::nullopt;
  // ... the caller asks for no encryption and no check of who answers.
  bool plainText = false;
  // How the caller's own users ask for the one and the other, where an error tells them to. May be empty.
  std::string credentialsAdvice = {};
  std::string plainTextAdvice = {};
};

// `address`: "unix:/absolute/path" or "HOST:PORT". FrameworkError names the address and what was wrong (nothing
// listens, no such socket file, no permission, a certificate or token refused) and what to do; Timeout when it does not
// answer in time. The Invokable is a core::Closable; destroying it closes it, and waits for the connection's threads.
// An attempt over TCP that timed out keeps its socket for a moment longer. One that was interrupted gives it back at
// once when TLS is being agreed on; while nobody has taken the connection, or a peer in plain text is silent, gRPC
// offers no way to give it up, and keeps it for the rest of its time.
std::shared_ptr<core::Invokable> connect(const std::string& address, const ConnectOptions& options = {});

}  // namespace agent::spf::grpc_transport
