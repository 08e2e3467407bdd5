#include "transport/getLogger.h"

#include "platform/logging/createQLVLogger.h"

namespace parallel::spf::transport {

foundation::log::basic_diagnostic_logger<char>& getLogger() {
  static auto& logger = logging::createQLVLogger("parallel::spf::transport");
  return logger;
}

}  // namespace parallel::spf::transport
