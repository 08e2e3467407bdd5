// Whether a service that one is connected to lets one call it.
#pragma once

#include <grpcpp/channel.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace agent::spf::grpc_transport::internal {

// Opens a stream that carries no call, closes it, and returns the status that the service gives it. `poll`, if any, is
// asked about every 50 ms and may throw.
grpc::Status askForAccess(const std::shared_ptr<grpc::Channel>& channel, std::chrono::system_clock::time_point deadline,
                          const std::function<void()>& poll);

}  // namespace agent::spf::grpc_transport::internal
