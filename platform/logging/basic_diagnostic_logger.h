// A named logger with a mask of enabled severity levels; records travel through the process's one Boost.Log core.
//
// Levels are single bits of the mask. A record's text is formatted only when its bit is set and the core takes it:
//
//     FOUNDATION_LOG(getLogger(), 8) << "retrying " << name;
//
// Silent by default: every mask is 0, and without a sink the core drops all. A front end attaches a sink
// (platform/logging/sinks.h) and enables levels.
// Threads: the level test reads an atomic without a lock; records go through the core's own locking.
// Boost.Log stays behind this header: nothing of it is included here.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

namespace foundation::log {

using level_t = std::uint32_t;

template <class Char>
class basic_diagnostic_logger;

template <>
class basic_diagnostic_logger<char> {
 public:
  explicit basic_diagnostic_logger(std::string name);
  ~basic_diagnostic_logger();
  basic_diagnostic_logger(const basic_diagnostic_logger&) = delete;
  basic_diagnostic_logger& operator=(const basic_diagnostic_logger&) = delete;

  const std::string& name() const noexcept { return name_; }
  level_t enabledLevels() const noexcept { return enabled_.load(std::memory_order_relaxed); }
  void setEnabledLevels(level_t mask) noexcept { enabled_.store(mask, std::memory_order_relaxed); }
  bool isEnabled(level_t level) const noexcept { return (enabledLevels() & level) != 0; }

  // One record in the making. Test it: false when its level is off, when the core filtered it, and once it is pushed.
  // One that is not pushed is dropped.
  class Record {
   public:
    Record(basic_diagnostic_logger& logger, level_t level);
    ~Record();
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;
    explicit operator bool() const noexcept { return impl_ != nullptr; }
    std::ostream& stream();
    void push();

   private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
  };

 private:
  struct Source;
  std::string name_;
  std::atomic<level_t> enabled_{0};
  std::unique_ptr<Source> source_;
};

}  // namespace foundation::log

// Evaluates nothing to the right of it unless the level is enabled and the core takes the record. A loop that runs at
// most once, so that it stands anywhere a statement may.
#define FOUNDATION_LOG(logger, level)                                                                     \
  for (::foundation::log::basic_diagnostic_logger<char>::Record foundation_log_record((logger), (level)); \
       foundation_log_record; foundation_log_record.push())                                               \
  foundation_log_record.stream()
