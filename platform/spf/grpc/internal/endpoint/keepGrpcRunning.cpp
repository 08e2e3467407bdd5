#include "platform/spf/grpc/internal/endpoint/keepGrpcRunning.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>

#include <memory>

namespace agent::spf::grpc_transport::internal {

// A channel keeps gRPC's threads. This one never connects, and is never ended. The pointer is volatile because a compiler
// may leave out one that nobody reads, and leak checkers want to find it.
void keepGrpcRunning() {
  [[maybe_unused]] static std::shared_ptr<grpc::Channel>* volatile kept =
      new std::shared_ptr<grpc::Channel>(grpc::CreateChannel("unix:/", grpc::InsecureChannelCredentials()));
}

}  // namespace agent::spf::grpc_transport::internal
