// zks-worker, which runs tasks for a service. For its users: docs/zks-worker.md.
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <exception>
#include <iostream>
#include <utility>

#include "execution/Leftovers.h"
#include "platform/logging/consoleSink.h"
#include "platform/logging/createQLVLogger.h"
#include "platform/logging/sinks.h"
#include "platform/spf/grpc/routeGrpcLog.h"
#include "programs/standardDescriptors.h"
#include "toolbox/Connection.h"
#include "worker/Worker.h"
#include "worker/WorkerOptions.h"

namespace parallel::worker {

namespace {

// Blocked before the first thread is made, so that only the main thread takes them.
class EndSignals {
 public:
  EndSignals() {
    sigemptyset(&signals_);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
      sigaddset(&signals_, signal);
    ::pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
  }

  bool waitFor(std::chrono::nanoseconds lessThanASecond) const {
    const timespec limit{0, lessThanASecond.count()};
    return ::sigtimedwait(&signals_, nullptr, &limit) > 0;
  }

 private:
  sigset_t signals_{};
};

void run(const WorkerOptions& options) {
  const EndSignals signals;
  execution::adoptOrphans();
  const logging::SinkHandle log = logging::consoleSink(STDERR_FILENO, "zks-worker");
  logging::setEnabledLevels("", options.logLevels);
  agent::spf::grpc_transport::routeGrpcLog();
  auto& logger = logging::createQLVLogger("zks.worker");
  if (const std::size_t count = execution::killLeftoversOfTheDead(); count > 0)
    FOUNDATION_LOG(logger, logging::kWarning)
        << "Killed processes that tasks of a worker or service that died had left: " << count;

  const auto connect = [&options] { return toolbox::Connection::connect(options.address, options.connection); };
  Worker worker(options.settings, connect, logger);
  bool stopping = false;
  while (!worker.hasEnded()) {
    const bool isAsked = signals.waitFor(std::chrono::milliseconds(stopping ? 20 : 100));
    // Asked again: at once. What it runs goes with it; the service learns of it by the lease.
    if (isAsked && std::exchange(stopping, true))
      ::_exit(1);
    if (isAsked) {
      FOUNDATION_LOG(logger, logging::kInfo) << "Asked to end: takes nothing more, and hands back what is not done.";
      worker.stop();
    }
    execution::tendOrphans();
  }
}

int complain(const char* text) {
  std::cerr << "zks-worker: " << text << '\n';
  return 1;
}

}  // namespace

}  // namespace parallel::worker

int main(int argc, char** argv) {
  using namespace parallel::worker;  // NOLINT(google-build-using-namespace)
  programs::occupyStandardDescriptors();
  const ParsedWorkerArguments parsed = parseWorkerArguments({argv + 1, argv + argc}, std::cout, std::cerr);
  if (!parsed.options)
    return std::cout.flush() ? parsed.exitCode : complain("cannot write to standard output");
  try {
    run(*parsed.options);
    return 0;
  } catch (const std::exception& failure) {
    return complain(failure.what());
  }
}
