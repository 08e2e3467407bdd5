#include "cli/LogOutput.h"

#include <stdexcept>

#include "cli/CliError.h"
#include "cli/StandardStreams.h"
#include "platform/logging/consoleSink.h"

namespace zks {
namespace {

void showRecord(const parallel::logging::LogRecord& record) {
  writeError(parallel::logging::consoleLine("zks", record));
}

}  // namespace

LogOutput::LogOutput(const std::string& level) : sink_(showRecord) {
  try {
    parallel::logging::setEnabledLevels("", parallel::logging::levelsFromWord(level));
  } catch (const std::invalid_argument& error) {
    throw UsageError("--log: " + std::string(error.what()));
  }
}

}  // namespace zks
