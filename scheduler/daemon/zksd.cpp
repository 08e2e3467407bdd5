// zksd, the scheduler's daemon. For its users: docs/zksd.md.
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <utility>

#include "execution/Leftovers.h"
#include "platform/errors/visibleText.h"
#include "platform/logging/consoleSink.h"
#include "platform/logging/createQLVLogger.h"
#include "platform/logging/sinks.h"
#include "platform/spf/grpc/Server.h"
#include "platform/spf/grpc/routeGrpcLog.h"
#include "programs/siblingProgram.h"
#include "programs/standardDescriptors.h"
#include "scheduler/SchedulerService.h"
#include "scheduler/calls/CallCounter.h"
#include "scheduler/daemon/DaemonError.h"
#include "scheduler/daemon/DaemonOptions.h"
#include "scheduler/daemon/MemoryGuard.h"
#include "scheduler/daemon/SocketClaim.h"
#include "scheduler/daemon/absolutePath.h"
#include "scheduler/daemon/allocatorTuning.h"
#include "scheduler/daemon/defaultSocket.h"
#include "scheduler/daemon/defaultStore.h"
#include "scheduler/daemon/descriptorLimit.h"
#include "scheduler/daemon/serviceCredentials.h"
#include "scheduler/engines/local/LocalEngine.h"

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
  bool waitFor(std::chrono::milliseconds time) const {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const timespec limit{seconds.count(), std::chrono::nanoseconds(time - seconds).count()};
    return ::sigtimedwait(&signals_, nullptr, &limit) > 0;
  }

 private:
  sigset_t signals_{};
};

// Gives kept memory back when nothing has been called for a while.
class IdleRelease {
 public:
  explicit IdleRelease(const CallCounter& counter) : counter_(counter) {}

  void look() {
    if (const auto now = std::chrono::steady_clock::now(); now >= next_) {
      next_ = now + std::chrono::seconds(5);
      if (counter_.underWay() == 0 && std::exchange(finished_, counter_.finished()) != counter_.finished())
        releaseKeptMemory();
    }
  }

 private:
  const CallCounter& counter_;
  std::uint64_t finished_ = 0;
  std::chrono::steady_clock::time_point next_{};
};

// What can be bounded nowhere else: gRPC holds headers and streams that its own limits do not count.
void endConnectionWhereMemoryIsShort(MemoryGuard& memory, Server& server) {
  if (!memory.wantsLess())
    return;
  if (const auto peer = server.endHeaviestConnection())
    FOUNDATION_LOG(logging::createQLVLogger("zks.spf"), logging::kWarning)
        << "This process has more memory than its limit of " << memory.limitBytes() << " bytes (zksd --max-memory). "
        << "A connection of " << *peer << " was ended.";
}

// Tells when nobody has called for so long that the service leaves.
class IdleEnd {
 public:
  // Zero: never.
  IdleEnd(const CallCounter& counter, std::chrono::milliseconds after) : counter_(counter), after_(after) {}

  bool isOver() {
    const auto now = std::chrono::steady_clock::now();
    if (counter_.underWay() > 0 || std::exchange(finished_, counter_.finished()) != counter_.finished())
      since_ = now;
    return after_.count() > 0 && now - since_ >= after_;
  }

 private:
  const CallCounter& counter_;
  const std::chrono::milliseconds after_;
  std::uint64_t finished_ = 0;
  std::chrono::steady_clock::time_point since_ = std::chrono::steady_clock::now();
};

// Once its store has failed a service must not answer from memory: it ends, and the next one reads what is on the disk.
class StoreFailure {
 public:
  void tell(const std::string& reason) {
    FOUNDATION_LOG(logging::createQLVLogger("zks.scheduler"), logging::kError)
        << "The store has failed, and the service ends: " << errors::visibleText(reason);
    hasCome_ = true;
  }
  bool hasCome() const noexcept { return hasCome_; }

 private:
  std::atomic<bool> hasCome_{false};
};

// Which worker to start when one is wanted; nothing: none.
std::optional<engines::LocalEngine::Options> localEngine(const DaemonOptions& options,
                                                         const std::filesystem::path& store, const Server& server) {
  const char* path = std::getenv("PATH");
  const bool isUsual = options.listen.empty() &&
                       !engines::isLoginNode(path != nullptr ? path : "", std::getenv("SLURM_JOB_ID") != nullptr);
  if (!options.localEngine.value_or(isUsual))
    return std::nullopt;
  const std::filesystem::path program = options.worker.empty()
                                            ? std::filesystem::path(programs::siblingProgram("zks-worker", "worker"))
                                            : absolutePath(options.worker);
  if (::access(program.c_str(), X_OK) != 0 && !options.localEngine && options.worker.empty())
    return std::nullopt;
  engines::LocalEngine::Options engine;
  engine.command = {program.string(), "--address", server.address(), "--idle-limit", "120"};
  engine.log = store / "local-worker.log";
  if (!options.scratch.empty())
    engine.command.insert(engine.command.end(), {"--scratch", options.scratch.string()});
  return engine;
}

void serveUntilSignal(const EndSignals& signals, const CallCounter& counter, IdleEnd end, const StoreFailure& store,
                      MemoryGuard& memory, Server& server, const std::function<void()>& tendEngines) {
  constexpr std::chrono::milliseconds kLook{100};
  IdleRelease idle(counter);
  while (!signals.waitFor(kLook) && !end.isOver()) {
    if (store.hasCome())
      throw DaemonError("The store has failed; the log says how. Start the service anew when that is mended");
    idle.look();
    tendEngines();
    execution::tendOrphans();
    endConnectionWhereMemoryIsShort(memory, server);
  }
}

using agent::spf::grpc_transport::ServerOptions;

std::unique_ptr<Server> listen(const std::shared_ptr<agent::spf::core::Service>& service,
                               const ServerOptions& options) {
  const SocketClaim::PrivateFiles ownersOnly;
  return std::make_unique<Server>(service, options);
}

std::chrono::milliseconds millisecondsOf(double seconds) {
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

ServerOptions serverOptions(const DaemonOptions& options, const std::optional<SocketClaim>& claim,
                            std::uint64_t descriptors, const MemoryGuard& memory) {
  ServerOptions server;
  server.address = claim ? claim->address() : options.listen;
  server.plainText = options.insecure;
  server.idleTimeout = millisecondsOf(options.idleSeconds);
  server.handshakeTimeout = millisecondsOf(options.handshakeSeconds);
  server.handlersAtOnce = options.maxCalls;
  server.maxMessageMemory = static_cast<std::size_t>(memory.limitBytes() / 2);
  server.maxConnections = options.maxConnections.value_or(connectionsWithin(descriptors));
  server.maxConnectionsPerPeer =
      options.maxPeerConnections.value_or(std::max<std::size_t>(server.maxConnections / 2, 1));
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
  const DescriptorLimit descriptors = raiseDescriptorLimit();
  execution::adoptOrphans();
  keepFreedMemory();
  const logging::SinkHandle log = logging::consoleSink(STDERR_FILENO, "zksd");
  logging::setEnabledLevels("", options.logLevels);
  agent::spf::grpc_transport::routeGrpcLog();

  std::optional<SocketClaim> claim;
  if (options.listen.empty())
    claim.emplace(options.socket.empty() ? prepareDefaultSocket() : options.socket);
  const auto counter = std::make_shared<CallCounter>();
  const auto storeFailure = std::make_shared<StoreFailure>();
  const auto wantsWorker = std::make_shared<std::atomic<bool>>(false);
  const auto store = options.store.empty() ? defaultStore() : absolutePath(options.store);
  const auto service = makeSchedulerService(
      SchedulerOptions{.slots = options.slots,
                       .scratchParent = options.scratch,
                       .taskOpenFiles = descriptors.usual,
                       .descriptionLimit = {options.maxFields, "zksd --max-fields"},
                       .store = store,
                       .opensStoreAtOnce = !options.store.empty(),
                       .storeFailed = [storeFailure](const std::string& reason) { storeFailure->tell(reason); },
                       .wantsWorker = wantsWorker,
                       .counter = counter});
  if (options.maxRequestBytes)
    service->limitRequests({static_cast<long>(*options.maxRequestBytes), "zksd --max-request"});
  MemoryGuard memory(options.maxMemoryBytes.value_or(halfOfMemory()));
  const std::unique_ptr<Server> server = listen(service, serverOptions(options, claim, descriptors.now, memory));
  announce(options, *server);
  std::optional<engines::LocalEngine> engine;
  if (auto settings = localEngine(options, store, *server))
    engine.emplace(std::move(*settings), logging::createQLVLogger("zks.scheduler"));
  const auto tendEngines = [&] {
    if (engine)
      engine->tend([&] { return wantsWorker->load(); });
  };
  serveUntilSignal(signals, *counter, IdleEnd(*counter, millisecondsOf(options.leaveAfterSeconds)), *storeFailure,
                   memory, *server, tendEngines);
}

int complain(const char* text) {
  std::cerr << "zksd: " << text << '\n';
  return 1;
}

}  // namespace

}  // namespace parallel::scheduler

int main(int argc, char** argv) {
  using namespace parallel::scheduler;  // NOLINT(google-build-using-namespace)
  programs::occupyStandardDescriptors();
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
