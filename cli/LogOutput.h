// The log on standard error, at the level that the user wants.
#pragma once

#include <string>

#include "platform/logging/sinks.h"

namespace zks {

class LogOutput {
 public:
  // Throws UsageError for a word that is no level.
  explicit LogOutput(const std::string& level);

 private:
  parallel::logging::SinkHandle sink_;
};

}  // namespace zks
