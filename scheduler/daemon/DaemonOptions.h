// What zksd is told on its command line. Described for users in docs/zksd.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "platform/logging/basic_diagnostic_logger.h"
#include "scheduler/calls/DescriptionLimit.h"

namespace parallel::scheduler {

struct DaemonOptions {
  // One of the two, or none: then the default socket file.
  std::filesystem::path socket;
  std::string listen;  // HOST:PORT
  // For `listen`: where the credentials are, and the names that the service's certificate gets besides the usual ones.
  std::filesystem::path tlsDirectory;  // empty: the default
  std::vector<std::string> tlsNames;
  bool insecure = false;
  std::size_t slots = 0;
  std::optional<std::uint64_t> maxRequestBytes;
  double idleSeconds = 600;      // 0: no limit
  double leaveAfterSeconds = 0;  // without a call; 0: never
  // Connections at once, of all clients and of one of them; nothing: as many as the descriptors allow, 1000 at most,
  // and half of them.
  std::optional<std::size_t> maxConnections;
  std::optional<std::size_t> maxPeerConnections;
  double handshakeSeconds = 20;
  std::size_t maxFields = DescriptionLimit().fields;  // in the description of a call
  std::size_t maxCalls = 1000;                        // that are served at once
  std::optional<std::uint64_t> maxMemoryBytes;        // nothing: half of what the machine has
  std::filesystem::path scratch;
  // The local engine: for jobs, where no worker is there. Nothing: unless this is a login node, or TCP is listened on.
  std::optional<bool> localEngine;
  std::filesystem::path worker;  // its program; empty: zks-worker beside this one
  std::filesystem::path store;   // empty: the default, opened when it is needed
  foundation::log::level_t logLevels = 0;
};

struct ParsedArguments {
  std::optional<DaemonOptions> options;
  int exitCode = 0;  // without options: 0 after --help or --version, 2 after a usage error
};

// `arguments` without the program's name. Help goes to `out`, complaints to `error`.
ParsedArguments parseArguments(std::vector<std::string> arguments, std::ostream& out, std::ostream& error);

}  // namespace parallel::scheduler
