#include "cli/LogOutput.h"

#include <iostream>
#include <stdexcept>

#include "cli/CliError.h"
#include "cli/StandardStreams.h"
#include "platform/logging/consoleSink.h"

namespace zks {

using parallel::logging::LogRecord;

LogOutput::LogOutput(const std::string& level) {
  try {
    shown_ = parallel::logging::levelsFromWord(level);
  } catch (const std::invalid_argument& error) {
    throw UsageError("--log: " + std::string(error.what()));
  }
  parallel::logging::setEnabledLevels("", shown_ | parallel::logging::kDetail);
  sink_ = std::make_unique<parallel::logging::SinkHandle>([this](const LogRecord& record) { take(record); });
}

void LogOutput::take(const LogRecord& record) {
  if ((record.level & parallel::logging::kDetail) != 0) {
    const std::lock_guard lock(mutex_);
    lastCause_ = causeFromDiagnostic(record.text);
  }
  if ((record.level & shown_) != 0)
    writeError(parallel::logging::consoleLine("zks", record));
}

std::string LogOutput::lastCause() const {
  const std::lock_guard lock(mutex_);
  return lastCause_;
}

std::string causeFromDiagnostic(std::string_view text) {
  constexpr std::string_view mark = "std::exception::what: ";
  const std::size_t at = text.find(mark);
  if (at == std::string_view::npos)
    return {};
  text.remove_prefix(at + mark.size());
  return std::string(text.substr(0, text.find('\n')));
}

}  // namespace zks
