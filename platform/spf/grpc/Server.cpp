#include "platform/spf/grpc/Server.h"

#include <utility>

#include "platform/spf/grpc/internal/server/ServerCore.h"

namespace agent::spf::grpc_transport {

class Server::Impl : public internal::ServerCore {
 public:
  using ServerCore::ServerCore;
};

Server::Server(std::shared_ptr<const core::Service> service, const ServerOptions& options)
    : impl_(std::make_unique<Impl>(std::move(service), options)) {}

Server::~Server() = default;

const std::string& Server::address() const noexcept {
  return impl_->address();
}

std::optional<std::string> Server::endHeaviestConnection() {
  return impl_->endHeaviestConnection();
}

}  // namespace agent::spf::grpc_transport
