// The library's one logger: the only channel for diagnostics that are not thrown.
//
//     FOUNDATION_LOG(getLogger(), 8) << "retrying " << name;
//
// Levels (parallel::logging names them): 2 each call, 8 a misuse that was made good, 16 the text of an exception that
// was caught, 256 a failure. Threads: any, at once; also for the first call, which makes the logger.
#pragma once

#include "platform/logging/basic_diagnostic_logger.h"
#include "transport/export.h"

namespace parallel::spf::transport {

PARALLEL_SPF_TRANSPORT_EXPORT foundation::log::basic_diagnostic_logger<char>& getLogger();

}  // namespace parallel::spf::transport
