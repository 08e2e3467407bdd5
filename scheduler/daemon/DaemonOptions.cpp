#include "scheduler/daemon/DaemonOptions.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <stdexcept>

#include "platform/logging/sinks.h"
#include "programs/optionValues.h"

namespace parallel::scheduler {

using programs::notEmpty;
using programs::secondsAboveZero;
using programs::secondsFromZero;
using programs::sizeInBytes;
using programs::wholeNumber;

namespace {

constexpr int kUsageError = 2;
// What it takes with a few clients.
constexpr std::uint64_t kLeastMemory = std::uint64_t{128} << 20U;

programs::OptionCheck hostAndPort() {
  const auto isFit = [](const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
      return false;
    std::string port = text.substr(colon + 1);
    return wholeNumber(0, 65535)(port).empty();
  };
  return programs::optionValue(isFit, "HOST:PORT with a port from 0 to 65535");
}

CLI::Validator asValidator(const programs::OptionCheck& check) {
  return {check, ""};
}

struct RawOptions {
  DaemonOptions options;
  std::string logWord = "info";
};

void declareOptions(CLI::App& app, RawOptions& raw) {
  DaemonOptions& options = raw.options;
  app.set_version_flag("--version", "zksd " ZKS_VERSION);
  auto* socket = app.add_option("--socket", options.socket,
                                "Listen on this socket file, which only its user can open "
                                "(default: $XDG_RUNTIME_DIR/zks/zksd.sock, or /tmp/zks-UID/zksd.sock)");
  socket->type_name("PATH")->check(asValidator(notEmpty()));
  auto* listen =
      app.add_option("--listen", options.listen, "Listen on TCP, with TLS unless told otherwise. Port 0: any free one");
  listen->type_name("HOST:PORT")->excludes(socket)->check(asValidator(hostAndPort()));
  auto* tls = app.add_option("--tls", options.tlsDirectory,
                             "Keep the service's and the clients' credentials here; made if missing "
                             "(default: $ZKS_TLS, $XDG_STATE_HOME/zks/tls or ~/.local/state/zks/tls)");
  tls->type_name("DIR")->needs(listen)->check(asValidator(notEmpty()));
  auto* name = app.add_option("--tls-name", options.tlsNames,
                              "A name or address by which clients call this machine, for its certificate; repeatable");
  name->type_name("NAME")->needs(listen)->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  name->allow_extra_args(false);
  app.add_flag("--insecure", options.insecure,
               "No TLS: whoever reaches the port can run any command as this user, and nothing is encrypted")
      ->needs(listen)
      ->excludes(tls)
      ->excludes(name);
  app.add_option("--slots", options.slots, "Tasks that run at once (default: the cores of this machine)")
      ->type_name("N")
      ->check(asValidator(wholeNumber(1, 1'000'000)));
  app.add_option("--scratch", options.scratch, "Make the tasks' directories in this one (default: $TMPDIR or /tmp)")
      ->type_name("DIR")
      ->check(asValidator(notEmpty()))
      ->check(CLI::ExistingDirectory);
  app.add_option("--store", options.store,
                 "Keep jobs and their files in this folder, which is made if missing "
                 "(default: $XDG_STATE_HOME/zks/store or ~/.local/state/zks/store, opened when it is needed)")
      ->type_name("DIR")
      ->check(asValidator(notEmpty()));
  // Not add_flag() into the field: that writes the flag's own default into it.
  app.add_flag_function(
      "--local-engine,!--no-local-engine", [&options](std::int64_t balance) { options.localEngine = balance > 0; },
      "Start a worker here when jobs wait and none is there, or never do so (default: do so, unless "
      "this is a cluster's login node or the service listens on TCP)");
  app.add_option("--worker", options.worker, "The program of that worker (default: zks-worker beside zksd)")
      ->type_name("PROGRAM")
      ->check(asValidator(notEmpty()));
  app.add_option("--max-request", options.maxRequestBytes, "Refuse larger requests; in bytes or as 512M, 2G")
      ->type_name("BYTES")
      ->transform(asValidator(sizeInBytes()));
  app.add_option("--max-fields", options.maxFields,
                 "Refuse calls whose description has more fields: arguments, variables, files, items")
      ->type_name("N")
      ->check(asValidator(wholeNumber(1, 1'000'000'000)))
      ->capture_default_str();
  app.add_option("--idle-timeout", options.idleSeconds,
                 "How long a request may pause while it is received; 0: for ever")
      ->type_name("SECONDS")
      ->check(asValidator(secondsFromZero()))
      ->capture_default_str();
  app.add_option("--leave-after", options.leaveAfterSeconds, "End when nobody has called for so long; 0: never")
      ->type_name("SECONDS")
      ->check(asValidator(secondsFromZero()))
      ->capture_default_str();
  app.add_option("--max-connections", options.maxConnections,
                 "Connections at once; further ones wait (default: 1000, or what the limit of descriptors allows)")
      ->type_name("N")
      ->check(asValidator(wholeNumber(1, 1'000'000)));
  app.add_option("--max-peer-connections", options.maxPeerConnections,
                 "Connections at once of one address, or one process of this machine; further ones are refused "
                 "(default: half of --max-connections)")
      ->type_name("N")
      ->check(asValidator(wholeNumber(1, 1'000'000)));
  app.add_option("--max-calls", options.maxCalls,
                 "Calls that are served at once, each on a thread of its own; further ones wait in line")
      ->type_name("N")
      ->check(asValidator(wholeNumber(1, 1'000'000)))
      ->capture_default_str();
  app.add_option("--max-memory", options.maxMemoryBytes,
                 "What this process may hold before it ends connections; in bytes or as 512M, 2G "
                 "(default: half of what this machine, or its control group, has)")
      ->type_name("BYTES")
      ->transform(asValidator(sizeInBytes(kLeastMemory)));
  app.add_option("--handshake-timeout", options.handshakeSeconds,
                 "How long a client may take to show who it is after it has connected")
      ->type_name("SECONDS")
      ->check(asValidator(secondsAboveZero()))
      ->capture_default_str();
  app.add_option("--log", raw.logWord, "Say more or less on standard error: off, error, warning, info, detail, trace")
      ->type_name("LEVEL")
      ->capture_default_str();
}

foundation::log::level_t levelsOf(const std::string& word) {
  try {
    return logging::levelsFromWord(word);
  } catch (const std::invalid_argument& problem) {
    throw CLI::ValidationError("--log", problem.what());
  }
}

}  // namespace

ParsedArguments parseArguments(std::vector<std::string> arguments, std::ostream& out, std::ostream& error) {
  CLI::App app("The job-scheduler service: runs tasks for those who may connect. See docs/zksd.md.", "zksd");
  RawOptions raw;
  declareOptions(app, raw);
  try {
    std::reverse(arguments.begin(), arguments.end());  // as the library wants them
    app.parse(std::move(arguments));
    raw.options.logLevels = levelsOf(raw.logWord);
  } catch (const CLI::Success& success) {
    app.exit(success, out, error);
    return {std::nullopt, 0};
  } catch (const CLI::ParseError& problem) {
    error << "zksd: " << problem.what() << "; \"zksd --help\" tells more\n";
    return {std::nullopt, kUsageError};
  }
  return {raw.options, 0};
}

}  // namespace parallel::scheduler
