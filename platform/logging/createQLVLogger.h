// The toolbox's logging factory.
#pragma once

#include <memory>
#include <string_view>

#include "platform/logging/basic_diagnostic_logger.h"

namespace parallel::logging {

// The process's logger of that name: made at the first call, shared by later ones. Its mask is the one last set for the
// name by setEnabledLevels (sinks.h), 0 if none was.
foundation::log::basic_diagnostic_logger<char>& createQLVLogger(std::string_view name);

}  // namespace parallel::logging
