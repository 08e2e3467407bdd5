// Tells an administrator what the service does: one line in the log for each call, when its reply has ended. The format:
// docs/zksd.md.
//
// A call that was served, or given up by its client, is logged at its method's level, and one that failed at level
// warning. No line holds an argument, a variable of an environment, or bytes of a request.
// Threads: any.
#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/logging/basic_diagnostic_logger.h"
#include "platform/logging/sinks.h"
#include "platform/spf/core/Service.h"

namespace parallel::scheduler {

// What only the method knows of its call.
struct CallRecord {
  std::string program;             // what ran, argv[0]; empty where nothing did
  std::string outcome = "served";  // "exited 0"
  std::optional<std::chrono::nanoseconds> queued;
  std::optional<std::chrono::nanoseconds> ran;
};

class CallLog {
 public:
  using Logger = foundation::log::basic_diagnostic_logger<char>;
  using Method = std::function<void(agent::spf::core::ServerCall&, CallRecord&)>;

  // Ownership: borrows the logger, which must outlive the calls.
  explicit CallLog(Logger& logger) noexcept : logger_(logger) {}

  // Calls the method; the line follows when the reply has ended, which may be long after. Until then the record is there,
  // for what goes on with a reply that the method has deferred. What the method throws passes through.
  void serve(agent::spf::core::ServerCall& call, const Method& method,
             foundation::log::level_t usual = logging::kInfo) const;
  // The line of a call that was refused. None for a call without a method: so clients ask whether they are let in.
  void refused(std::string_view method, std::string_view peer, const std::exception& refusal) const;

 private:
  Logger& logger_;
};

}  // namespace parallel::scheduler
