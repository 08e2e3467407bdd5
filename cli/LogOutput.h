// The log on standard error, at the level that the user wants, and the memory of why an item could not be read.
//
// An item's own error has no cause: the library tells the cause to its log alone (level 16). So records of that level
// are taken whatever the user wants to see, and the last one is kept.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/logging/sinks.h"

namespace zks {

class LogOutput {
 public:
  // Throws UsageError for a word that is no level.
  explicit LogOutput(const std::string& level);

  // The what() text of the exception that the last such record told of; empty if there was none.
  std::string lastCause() const;

 private:
  void take(const parallel::logging::LogRecord& record);

  foundation::log::level_t shown_;
  mutable std::mutex mutex_;
  std::string lastCause_;  // guarded by mutex_
  std::unique_ptr<parallel::logging::SinkHandle> sink_;
};

// What an exception said, out of the diagnostic text that Boost makes of it; empty when it said nothing.
std::string causeFromDiagnostic(std::string_view text);

}  // namespace zks
