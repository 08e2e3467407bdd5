// How to connect to a service.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/spf/core/ByteLimit.h"

namespace parallel::toolbox {

struct ConnectionOptions {
  std::chrono::milliseconds timeout{10'000};
  // The directory with the service's ca.pem and token and a client.pem and client-key.pem: the connection is encrypted,
  // and both ends show who they are. Empty: on TCP the default directory (docs/security.md), on a socket file none.
  std::filesystem::path tls = {};
  // TCP in plain text, which everybody in between can read and alter.
  bool insecure = false;
  // A reply that has begun may pause for so long; then its reader gets Timeout. Zero: for ever.
  std::chrono::milliseconds idleTimeout{600'000};
  // A larger reply fails its call.
  std::optional<agent::spf::core::ByteLimit> replyLimit = std::nullopt;
  // What the caller's own users write to set `tls` and `insecure`: errors advise it.
  std::string tlsAdvice = "ConnectionOptions::tls";
  std::string insecureAdvice = "ConnectionOptions::insecure";
};

}  // namespace parallel::toolbox
