#include "platform/spf/grpc/routeGrpcLog.h"

#include <grpc/support/log.h>

#include <chrono>
#include <string>

#include "platform/logging/createQLVLogger.h"
#include "platform/logging/sinks.h"
#include "platform/spf/grpc/internal/endpoint/RepeatedLines.h"

namespace agent::spf::grpc_transport {

namespace {

void take(gpr_log_func_args* line) {
  using namespace parallel::logging;
  static auto& repeated = *new internal::RepeatedLines;  // gRPC's threads may log while the process ends
  if (line->severity != GPR_LOG_SEVERITY_ERROR) {
    FOUNDATION_LOG(createQLVLogger("zks.grpc"), kTrace) << line->message;
    return;
  }
  const std::string place = std::string(line->file) + ":" + std::to_string(line->line);
  if (const auto more = repeated.take(place, std::chrono::steady_clock::now()))
    FOUNDATION_LOG(createQLVLogger("zks.grpc"), kWarning) << line->message << *more;
}

}  // namespace

void routeGrpcLog() {
  gpr_set_log_function(take);
}

}  // namespace agent::spf::grpc_transport
