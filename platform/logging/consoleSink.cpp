#include "platform/logging/consoleSink.h"

#include <utility>

namespace parallel::logging {

std::string consoleLine(std::string_view program, const LogRecord& record) {
  std::string line;
  line.append(program).append(": ").append(levelName(record.level)).append(": ").append(record.logger);
  return line.append(": ").append(record.text).append("\n");
}

SinkHandle consoleSink(std::ostream& stream, std::string program) {
  return SinkHandle([&stream, program = std::move(program)](const LogRecord& record) {
    stream << consoleLine(program, record) << std::flush;
  });
}

}  // namespace parallel::logging
