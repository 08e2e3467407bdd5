// Starts workers on this machine for the service in this process: one at a time, when it is wanted, and anew when it has
// died and is still wanted.
//
// The worker is in a session of its own and outlives this process: it finds the next service by itself. It ends by itself
// when it has been idle for a while. One that dies soon is followed by the next after a pause, which doubles each time.
// Threads:   one at a time: the thread that tends it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/logging/basic_diagnostic_logger.h"

namespace parallel::scheduler::engines {

class LocalEngine {
 public:
  using Logger = foundation::log::basic_diagnostic_logger<char>;
  using Clock = std::chrono::steady_clock;

  struct Options {
    std::vector<std::string> command;  // the program's path, and its arguments
    std::filesystem::path log;         // what it says; appended to
    std::chrono::nanoseconds firstPause = std::chrono::seconds(1);
    std::chrono::nanoseconds longestPause = std::chrono::minutes(5);
    // One that has lived for so long has not failed.
    std::chrono::nanoseconds soon = std::chrono::seconds(10);
  };

  LocalEngine(Options options, Logger& logger) : options_(std::move(options)), logger_(logger) {}
  // Leaves its worker alone.
  ~LocalEngine() = default;
  LocalEngine(const LocalEngine&) = delete;
  LocalEngine& operator=(const LocalEngine&) = delete;

  // A few times a second. `isWanted` is asked only while no worker of this engine runs.
  void tend(const std::function<bool()>& isWanted);

  // Of the worker that runs.
  std::optional<pid_t> worker() const noexcept { return worker_; }

 private:
  void lookAfterWorker();
  void start();
  void failed(const std::string& why);

  const Options options_;
  Logger& logger_;
  std::optional<pid_t> worker_;
  Clock::time_point startedAt_{};
  Clock::time_point nextStart_{};
  std::chrono::nanoseconds pause_{0};
};

// On a login node of a cluster nothing is to run: its batch system is there, and this process is not inside a job of it.
// `searchPath` is the value of PATH.
bool isLoginNode(const std::string& searchPath, bool isInsideBatchJob);

}  // namespace parallel::scheduler::engines
