// What zks-worker is told on its command line. Described for users in docs/zks-worker.md.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "platform/logging/basic_diagnostic_logger.h"
#include "toolbox/ConnectionOptions.h"
#include "worker/Worker.h"

namespace parallel::worker {

struct WorkerOptions {
  std::string address;  // empty: the default socket file
  toolbox::ConnectionOptions connection;
  WorkerSettings settings;
  foundation::log::level_t logLevels = 0;
};

struct ParsedWorkerArguments {
  std::optional<WorkerOptions> options;
  int exitCode = 0;  // without options: 0 after --help or --version, 2 after a usage error
};

// `arguments` without the program's name. Help goes to `out`, complaints to `error`.
ParsedWorkerArguments parseWorkerArguments(std::vector<std::string> arguments, std::ostream& out, std::ostream& error);

}  // namespace parallel::worker
