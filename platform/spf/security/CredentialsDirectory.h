// The directory in which a service keeps its credentials, and from which a client takes its own. For users:
// docs/security.md.
//
//     ca.pem ca-key.pem           the authority that has signed the rest; its key stays with the service
//     server.pem server-key.pem   the service's own
//     client.pem client-key.pem   a client's. A client needs these two, ca.pem and token
//     token                       known to both
//
// The directory has mode 0700, its secrets have 0600, and nothing is read from one that lets others in.
//
// Errors:   FrameworkError, without any secret: which file, what is wrong, what to do.
// Crashes:  each file appears whole or not at all, in an order in which the next prepareDirectory() can go on.
// Processes: those that prepare one directory at the same time wait for each other.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/spf/security/Certificates.h"
#include "platform/spf/security/Credentials.h"

namespace agent::spf::security {

// A certificate with less than this left is made anew when its directory is prepared.
inline constexpr std::chrono::hours kRenewBefore{24 * 60};

struct DirectoryRequest {
  std::filesystem::path directory;
  // Names and addresses by which clients call the service, besides those of every machine: localhost, 127.0.0.1, ::1
  // and the machine's own name.
  std::vector<std::string> hosts = {};
  Time now = std::chrono::system_clock::now();
  // After each change to the disk. For tests, which end there.
  std::function<void()> onStep = nullptr;
};

// Makes what is missing, renews what ends soon or lacks a name, and leaves the rest alone.
void prepareDirectory(const DirectoryRequest& request);

Credentials readServerCredentials(const std::filesystem::path& directory);
Credentials readClientCredentials(const std::filesystem::path& directory);

// $ZKS_TLS; without it $XDG_STATE_HOME/zks/tls; without that ~/.local/state/zks/tls. Empty when there is no home
// either.
std::filesystem::path defaultDirectory();

}  // namespace agent::spf::security
