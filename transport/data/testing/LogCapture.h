// Collects the library's log records while it lives, of the levels given; the levels are off again afterwards.
#pragma once

#include <string>
#include <vector>

#include "platform/logging/sinks.h"
#include "platform/threads/Mutex.h"

namespace parallel::spf::transport::testing {

class LogCapture {
 public:
  explicit LogCapture(foundation::log::level_t levels = logging::kAll)
      : sink_([this](const logging::LogRecord& record) { add(record); }) {
    logging::setEnabledLevels(kLoggerName, levels);
  }
  ~LogCapture() { logging::setEnabledLevels(kLoggerName, 0); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<logging::LogRecord> records() const {
    const threads::MutexLock lock(mutex_);
    return records_;
  }

  std::vector<std::string> texts(foundation::log::level_t level = logging::kAll) const {
    std::vector<std::string> texts;
    for (const logging::LogRecord& record : records()) {
      if ((record.level & level) != 0)
        texts.push_back(record.text);
    }
    return texts;
  }

 private:
  static constexpr const char* kLoggerName = "parallel::spf::transport";

  void add(const logging::LogRecord& record) {
    const threads::MutexLock lock(mutex_);
    if (record.logger == kLoggerName)
      records_.push_back(record);
  }

  mutable threads::Mutex mutex_;
  std::vector<logging::LogRecord> records_ ZKS_GUARDED_BY(mutex_);
  logging::SinkHandle sink_;  // last: it must not outlive the records
};

}  // namespace parallel::spf::transport::testing
