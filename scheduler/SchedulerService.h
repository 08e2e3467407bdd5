// Makes the scheduler's service: its methods, ready to be served over any framework of platform/spf.
//
// zksd serves it over sockets; a tool may embed it with connectInProcess. Methods: docs/methods.md.
// Ownership: the service holds all that its methods need: its scratch directories go with the last share of it.
// Threads:   methods run on the framework's threads, any number at once.
// Errors:    std::system_error when the scratch directory cannot be made; those of a store that is opened at once.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/logging/basic_diagnostic_logger.h"
#include "platform/spf/core/Service.h"
#include "scheduler/calls/CallCounter.h"
#include "scheduler/calls/DescriptionLimit.h"

namespace parallel::scheduler {

struct SchedulerOptions {
  // Tasks that run at once; the rest wait their turn. 0: as many as this process has cores.
  std::size_t slots = 0;
  // Where task directories are made; empty: the system's directory for temporary files.
  std::filesystem::path scratchParent;
  // Between the polite and the last signal to a task that must end.
  std::chrono::nanoseconds killGrace = std::chrono::seconds(1);
  // How many files a task may have open unless it says otherwise; nothing: as many as this process.
  std::optional<std::uint64_t> taskOpenFiles = std::nullopt;
  DescriptionLimit descriptionLimit = {};
  // Where jobs are kept; opened by the first call of a method of jobs, or at once. Empty: a store of the service's own in
  // the system's directory for temporary files, not synced, and removed with the service.
  std::filesystem::path store = {};
  bool opensStoreAtOnce = false;
  // Called once, on a thread of the store, when that can no longer be used. Whoever owns the process ends it.
  std::function<void(const std::string& reason)> storeFailed = {};
  // Set while there is work and no worker that is given any, for an owner that can start one; may be null.
  std::shared_ptr<std::atomic<bool>> wantsWorker = nullptr;
  // Null: the logger "zks.scheduler".
  foundation::log::basic_diagnostic_logger<char>* logger = nullptr;
  // Counts the calls, for an owner that wants to know when the service is idle; may be null.
  std::shared_ptr<CallCounter> counter;
};

// Remembers the process's environment of this moment: tasks get that one.
std::shared_ptr<agent::spf::core::Service> makeSchedulerService(const SchedulerOptions& options = {});

// Cores that this process may use, at least 1.
std::size_t availableCores();

}  // namespace parallel::scheduler
