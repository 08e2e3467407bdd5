// Shared by the sources of spf_peers.h.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "bench/spf_peers.h"
#include "platform/spf/security/Credentials.h"

namespace bench {

inline constexpr std::size_t kStoreBytes = std::size_t{256} << 20;
inline constexpr std::size_t kPingBytes = 64;

// Serve until stdin ends; each prints its address when it listens.
void serveBare(const std::string& address);
void serveRaw(const std::string& address);
void serveSpf(const std::string& address);
// Of "tls:HOST:PORT"; nothing for other addresses, which mean plain text.
std::optional<agent::spf::security::Credentials> serverCredentials(const std::string& address);
std::optional<agent::spf::security::Credentials> clientCredentials(const std::string& address);
// The address as gRPC knows it, and back.
std::string withoutFamily(const std::string& address);
std::string familyOf(const std::string& address);
void announceAddress(const std::string& address);
void waitForEndOfInput();

std::unique_ptr<Peer> connectBare(const std::string& address, std::size_t frameBytes, bool unary);
std::unique_ptr<Peer> connectRaw(const std::string& address);
std::unique_ptr<Peer> connectSpf(const std::string& address);

}  // namespace bench
