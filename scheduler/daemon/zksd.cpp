// zksd, the scheduler's daemon. For its users: docs/zksd.md.
#include <pthread.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>

#include "platform/logging/consoleSink.h"
#include "platform/logging/sinks.h"
#include "platform/spf/grpc/Server.h"
#include "platform/spf/grpc/routeGrpcLog.h"
#include "scheduler/CallCounter.h"
#include "scheduler/SchedulerService.h"
#include "scheduler/daemon/DaemonOptions.h"
#include "scheduler/daemon/SocketClaim.h"
#include "scheduler/daemon/allocatorTuning.h"
#include "scheduler/daemon/defaultSocket.h"
#include "scheduler/daemon/serviceCredentials.h"
#include "scheduler/standardDescriptors.h"

namespace parallel::scheduler {

namespace {

using agent::spf::grpc_transport::Server;

// The signals that end the daemon. Blocked before the first thread is made, so that only the main thread takes them.
class EndSignals {
 public:
  EndSignals() {
    sigemptyset(&signals_);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
      sigaddset(&signals_, signal);
    ::pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
  }

  // True when one came within that time.
  bool waitFor(std::chrono::seconds time) const {
    const timespec limit{time.count(), 0};
    return ::sigtimedwait(&signals_, nullptr, &limit) > 0;
  }

 private:
  sigset_t signals_{};
};

void serveUntilSignal(const EndSignals& signals, const CallCounter& counter) {
  constexpr std::chrono::seconds kIdleCheck{5};
  std::uint64_t finishedAtRelease = 0;
  while (!signals.waitFor(kIdleCheck)) {
    if (counter.underWay() == 0 && counter.finished() != finishedAtRelease) {
      finishedAtRelease = counter.finished();
      releaseKeptMemory();
    }
  }
}

using agent::spf::grpc_transport::ServerOptions;

std::unique_ptr<Server> listen(const std::shared_ptr<agent::spf::core::Service>& service,
                               const ServerOptions& options) {
  const SocketClaim::PrivateFiles ownersOnly;
  return std::make_unique<Server>(service, options);
}

ServerOptions serverOptions(const DaemonOptions& options, const std::optional<SocketClaim>& claim) {
  ServerOptions server;
  server.address = claim ? claim->address() : options.listen;
  server.plainText = options.insecure;
  server.idleTimeout = std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(options.idleSeconds));
  if (!claim && !options.insecure)
    server.credentials = serviceCredentials(options);
  return server;
}

void announce(const DaemonOptions& options, const Server& server) {
  std::cout << "zksd: listening on " << server.address() << std::endl;
  if (!options.listen.empty() && !options.insecure)
    std::cout << "zksd: a client needs ca.pem, client.pem, client-key.pem and token of "
              << credentialsDirectory(options).string() << std::endl;
}

void run(const DaemonOptions& options) {
  const EndSignals signals;
  keepFreedMemory();
  const logging::SinkHandle log = logging::consoleSink(std::cerr, "zksd");
  logging::setEnabledLevels("", options.logLevels);
  agent::spf::grpc_transport::routeGrpcLog();

  std::optional<SocketClaim> claim;
  if (options.listen.empty())
    claim.emplace(options.socket.empty() ? defaultSocket() : options.socket);
  const auto counter = std::make_shared<CallCounter>();
  const auto service = makeSchedulerService(
      SchedulerOptions{.slots = options.slots, .scratchParent = options.scratch, .counter = counter});
  if (options.maxRequestBytes)
    service->limitRequests({static_cast<long>(*options.maxRequestBytes), "zksd --max-request"});
  const std::unique_ptr<Server> server = listen(service, serverOptions(options, claim));
  announce(options, *server);
  serveUntilSignal(signals, *counter);
}

int complain(const char* text) {
  std::cerr << "zksd: " << text << '\n';
  return 1;
}

}  // namespace

}  // namespace parallel::scheduler

int main(int argc, char** argv) {
  using namespace parallel::scheduler;  // NOLINT(google-build-using-namespace)
  occupyStandardDescriptors();
  const ParsedArguments parsed = parseArguments({argv + 1, argv + argc}, std::cout, std::cerr);
  if (!parsed.options)
    return std::cout.flush() ? parsed.exitCode : complain("cannot write to standard output");
  try {
    run(*parsed.options);
    return 0;
  } catch (const std::exception& failure) {
    return complain(failure.what());
  }
}
