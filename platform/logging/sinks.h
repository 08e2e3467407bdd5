// Where records go, and which ones: for front ends and tests. The library itself never calls these.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/logging/basic_diagnostic_logger.h"

namespace parallel::logging {

// The levels by their consequence.
inline constexpr foundation::log::level_t kTrace = 2;    // each call, by name
inline constexpr foundation::log::level_t kInfo = 4;     // what a service did for whom: a line for each call
inline constexpr foundation::log::level_t kWarning = 8;  // a misuse that was made good, or a stale connection
inline constexpr foundation::log::level_t kDetail = 16;  // the diagnostic text of an exception that is thrown on
inline constexpr foundation::log::level_t kError = 256;  // a failure
inline constexpr foundation::log::level_t kAll = 0xFFFFFFFF;

struct LogRecord {
  std::string logger;
  foundation::log::level_t level;
  std::string text;
};

// Takes every record while it lives. Called on the thread that logs, one call at a time.
class SinkHandle {
 public:
  explicit SinkHandle(std::function<void(const LogRecord&)> sink);
  ~SinkHandle();
  SinkHandle(const SinkHandle&) = delete;
  SinkHandle& operator=(const SinkHandle&) = delete;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// For the logger of that name, made or not; an empty name means every logger, those to come included.
void setEnabledLevels(std::string_view loggerName, foundation::log::level_t mask);

// The mask of a word that a user types: "off", "error", "warning", "info", "detail", "trace"; each word includes those before
// it. Throws std::invalid_argument that lists the words.
foundation::log::level_t levelsFromWord(std::string_view word);
std::string_view levelName(foundation::log::level_t level);

}  // namespace parallel::logging
