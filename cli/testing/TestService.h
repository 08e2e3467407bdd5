// A service of the test's own making, on a socket file, to answer zks as no real one would.
#pragma once

#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "platform/spf/core/Service.h"
#include "platform/spf/grpc/Server.h"

namespace zks {

class TestService {
 public:
  using Handler = agent::spf::core::Service::Handler;

  // Every method is answered by the handler; the socket file lies at `path`.
  TestService(const std::string& path, const Handler& handler) {
    auto service = std::make_shared<agent::spf::core::Service>();
    for (const char* method : {"echo", "runTask", "any"})
      service->add(method, handler);
    agent::spf::grpc_transport::ServerOptions options;
    options.address = "unix:" + path;
    server_ = std::make_unique<agent::spf::grpc_transport::Server>(std::move(service), options);
  }

  const std::string& address() const noexcept { return server_->address(); }

 private:
  std::unique_ptr<agent::spf::grpc_transport::Server> server_;
};

// A handler that reads the request and answers with these bytes.
inline TestService::Handler answering(std::string bytes) {
  return [bytes = std::move(bytes)](agent::spf::core::ServerCall& call) {
    call.request().ignore(std::numeric_limits<std::streamsize>::max());
    call.reply().write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  };
}

}  // namespace zks
