#include "platform/spf/grpc/routeGrpcLog.h"

#include <grpc/support/log.h>

#include "platform/logging/createQLVLogger.h"
#include "platform/logging/sinks.h"

namespace agent::spf::grpc_transport {

namespace {

void take(gpr_log_func_args* line) {
  using namespace parallel::logging;
  FOUNDATION_LOG(createQLVLogger("zks.grpc"), line->severity == GPR_LOG_SEVERITY_ERROR ? kWarning : kTrace)
      << line->message;
}

}  // namespace

void routeGrpcLog() {
  gpr_set_log_function(take);
}

}  // namespace agent::spf::grpc_transport
