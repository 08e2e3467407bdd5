// Calls of the services that stock tools expect of any gRPC server: health checking and reflection.
//
// They are answered on the generic streams that carry our own calls. gRPC's ready-made versions are switched on for all
// servers of the process at once (the reflection library even by being loaded), list only services with generated code,
// and bring threads. A service that lives in somebody else's process may do none of that; this way every server has its
// own, at no cost until somebody asks.
#pragma once

#include <grpcpp/support/status.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace agent::spf::grpc_transport::internal {

// What goes out: messages, then the end of the call if there is a status.
struct StandardAnswer {
  std::vector<std::string> messages;
  std::optional<grpc::Status> status;
};

// Threads: one at a time per call.
class StandardCall {
 public:
  StandardCall() = default;
  virtual ~StandardCall() = default;
  StandardCall(const StandardCall&) = delete;
  StandardCall& operator=(const StandardCall&) = delete;

  // The client's next message.
  virtual StandardAnswer receive(const std::string& message) = 0;
  // The client has sent its last message.
  virtual StandardAnswer halfClosed() = 0;
  // From now on the server takes no more calls of its own service.
  virtual StandardAnswer drain() { return {}; }
};

// Null when no standard service has that method. `method` is the path, "/package.Service/Method".
std::unique_ptr<StandardCall> openStandardCall(const std::string& method);
// The methods of each.
std::unique_ptr<StandardCall> openHealthCall(const std::string& method);
std::unique_ptr<StandardCall> openReflectionCall(const std::string& method);

}  // namespace agent::spf::grpc_transport::internal
