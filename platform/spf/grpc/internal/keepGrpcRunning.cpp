#include "platform/spf/grpc/internal/keepGrpcRunning.h"

#include <grpc/grpc.h>

namespace agent::spf::grpc_transport::internal {

void keepGrpcRunning() {
  [[maybe_unused]] static const bool started = [] {
    grpc_init();  // never paired with a grpc_shutdown
    return true;
  }();
}

}  // namespace agent::spf::grpc_transport::internal
