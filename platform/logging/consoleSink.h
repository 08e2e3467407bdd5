// Shows log records, a line each: "zks: warning: parallel::spf::transport: text". The text may come from a peer: it is
// shown as visibleText.h says.
#pragma once

#include <string>
#include <string_view>

#include "platform/logging/sinks.h"

namespace parallel::logging {

std::string consoleLine(std::string_view program, const LogRecord& record);

// Writes each record as it comes, while the handle lives. Borrows the descriptor. Who logs never waits for a reader:
// lines for which a pipe or a terminal has no room are dropped, and counted in a line of their own once there is room.
// Longer lines than PIPE_BUF are cut.
SinkHandle consoleSink(int descriptor, std::string program);

}  // namespace parallel::logging
