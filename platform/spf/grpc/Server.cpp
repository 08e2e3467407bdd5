#include "platform/spf/grpc/Server.h"

#include <utility>

#include "platform/spf/grpc/internal/ServerCore.h"

namespace agent::spf::grpc_transport {

class Server::Impl {
 public:
  Impl(std::shared_ptr<const core::Service> service, const ServerOptions& options)
      : core_(std::move(service), options.address), grace_(options.grace) {}
  ~Impl() { core_.shutDown(grace_); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  const std::string& address() const noexcept { return core_.address(); }

 private:
  internal::ServerCore core_;
  std::chrono::milliseconds grace_;
};

Server::Server(std::shared_ptr<const core::Service> service, const ServerOptions& options)
    : impl_(std::make_unique<Impl>(std::move(service), options)) {}

Server::~Server() = default;

const std::string& Server::address() const noexcept {
  return impl_->address();
}

}  // namespace agent::spf::grpc_transport
