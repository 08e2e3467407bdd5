#include "scheduler/SchedulerService.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "execution/Leftovers.h"
#include "platform/logging/createQLVLogger.h"
#include "platform/logging/sinks.h"
#include "scheduler/EchoMethod.h"
#include "scheduler/JobsOfService.h"
#include "scheduler/RunTaskMethod.h"
#include "scheduler/calls/CallLog.h"
#include "scheduler/methods/ownThreads.h"

namespace parallel::scheduler {

using agent::spf::core::ServerCall;
using agent::spf::core::Service;

namespace {

using Logger = foundation::log::basic_diagnostic_logger<char>;

std::vector<std::string> currentEnvironment() {
  std::vector<std::string> entries;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
    entries.emplace_back(*entry);
  return entries;
}

// Counts and logs each call; errors pass through.
Service::Handler observed(CallLog::Method method, const CallLog& log, std::shared_ptr<CallCounter> counter,
                          foundation::log::level_t level = logging::kInfo) {
  return [method = std::move(method), log, counter = std::move(counter), level](ServerCall& call) {
    call.onEnd([counted = std::make_shared<CallCounter::Call>(counter)](const std::exception_ptr&) {});
    log.serve(call, method, level);
  };
}

// Whether it is there is found out by whoever makes something in it, and names it.
std::filesystem::path temporaryDirectory() {
  const char* named = std::getenv("TMPDIR");
  return named != nullptr && *named != '\0' ? named : "/tmp";
}

}  // namespace

std::shared_ptr<Service> makeSchedulerService(const SchedulerOptions& options) {
  Logger& logger = options.logger != nullptr ? *options.logger : logging::createQLVLogger("zks.scheduler");
  RunTaskMethod::Settings settings;
  settings.slots = options.slots != 0 ? options.slots : availableCores();
  settings.scratchParent = options.scratchParent.empty() ? temporaryDirectory() : options.scratchParent;
  settings.killGrace = options.killGrace;
  settings.environment = currentEnvironment();
  settings.openFiles = options.taskOpenFiles;
  settings.descriptionLimit = options.descriptionLimit;
  if (const std::size_t count = execution::killLeftoversOfTheDead(); count > 0)
    FOUNDATION_LOG(logger, logging::kWarning)
        << "Killed processes that tasks of a service that died had left: " << count;
  const auto runTask = std::make_shared<RunTaskMethod>(std::move(settings), logger);

  const CallLog log(logger);
  auto service = std::make_shared<Service>();
  service->add("echo",
               observed([limit = options.descriptionLimit](ServerCall& call, CallRecord&) { echo(call, limit); }, log,
                        options.counter));
  service->add("runTask", observed([runTask](ServerCall& call, CallRecord& record) { runTask->serve(call, record); },
                                   log, options.counter));
  const std::shared_ptr<JobsOfService> jobs(
      new JobsOfService(JobsOfService::Options{options.store, options.opensStoreAtOnce, temporaryDirectory(),
                                               options.storeFailed, options.descriptionLimit, ZKS_VERSION,
                                               options.wantsWorker}),
      methods::DeleteElsewhere());
  for (const auto& named : methods::JobMethods::all())
    service->add(named.name, observed([jobs, named](ServerCall& call, CallRecord&) { jobs->get().serve(named, call); },
                                      log, options.counter, named.isFrequent ? logging::kDetail : logging::kInfo));
  service->setRefusalObserver([log](std::string_view method, std::string_view peer, const std::exception& refusal) {
    log.refused(method, peer, refusal);
  });
  return service;
}

std::size_t availableCores() {
  cpu_set_t cores;
  if (::sched_getaffinity(0, sizeof cores, &cores) == 0)
    return static_cast<std::size_t>(std::max(CPU_COUNT(&cores), 1));
  return std::max<std::size_t>(std::thread::hardware_concurrency(), 1);
}

}  // namespace parallel::scheduler
