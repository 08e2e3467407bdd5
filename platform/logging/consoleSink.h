// Shows log records on a stream, a line each: "zks: warning: parallel::spf::transport: text".
#pragma once

#include <ostream>
#include <string>

#include "platform/logging/sinks.h"

namespace parallel::logging {

std::string consoleLine(std::string_view program, const LogRecord& record);

// Writes and flushes each record as it comes, while the handle lives. Borrows the stream.
SinkHandle consoleSink(std::ostream& stream, std::string program);

}  // namespace parallel::logging
