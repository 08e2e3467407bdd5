// The standard health service: the server as a whole (the empty name) and each service on it are healthy until the
// server drains.
#include <algorithm>
#include <utility>

#include "platform/protobufencoding/parseQuietly.h"
#include "platform/spf/grpc/internal/standard/StandardCall.h"
#include "platform/spf/grpc/internal/standard/health.pb.h"
#include "platform/spf/grpc/internal/standard/standardSchemas.h"

namespace agent::spf::grpc_transport::internal {

namespace {

using v1::health::HealthCheckRequest;
using v1::health::HealthCheckResponse;

std::string encode(HealthCheckResponse::ServingStatus status) {
  HealthCheckResponse response;
  response.set_status(status);
  return response.SerializeAsString();
}

class HealthCall : public StandardCall {
 public:
  StandardAnswer receive(const std::string& message) override {
    HealthCheckRequest request;
    if (asked_ || !parallel::protobufencoding::parseQuietly(request, message))
      return {{}, grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, "One HealthCheckRequest is due.")};
    asked_ = true;
    const auto& names = serviceNames();
    known_ = request.service().empty() || std::find(names.begin(), names.end(), request.service()) != names.end();
    return answer(request.service());
  }

  StandardAnswer halfClosed() override {
    if (asked_)
      return {};
    return {{}, grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, "One HealthCheckRequest is due.")};
  }

  StandardAnswer drain() override {
    if (std::exchange(draining_, true))
      return {};
    return asked_ && known_ ? changed() : StandardAnswer();
  }

 protected:
  virtual StandardAnswer answer(const std::string& service) = 0;
  virtual StandardAnswer changed() = 0;

  bool known() const { return known_; }
  std::string status() const {
    return encode(draining_ ? HealthCheckResponse::NOT_SERVING : HealthCheckResponse::SERVING);
  }

 private:
  bool asked_ = false;
  bool known_ = false;
  bool draining_ = false;
};

class CheckCall final : public HealthCall {
  StandardAnswer answer(const std::string& service) override {
    if (!known())
      return {{}, grpc::Status(grpc::StatusCode::NOT_FOUND, "There is no service " + service + " here.")};
    return {{status()}, grpc::Status::OK};
  }

  StandardAnswer changed() override { return {}; }  // it has been answered already
};

// Lasts until its client or the server ends it, also for names that there are none of, as the standard wants it.
class WatchCall final : public HealthCall {
  StandardAnswer answer(const std::string& /*service*/) override {
    return {{known() ? status() : encode(HealthCheckResponse::SERVICE_UNKNOWN)}, std::nullopt};
  }

  StandardAnswer changed() override { return {{status()}, std::nullopt}; }
};

}  // namespace

std::unique_ptr<StandardCall> openHealthCall(const std::string& method) {
  if (method == "/grpc.health.v1.Health/Check")
    return std::make_unique<CheckCall>();
  if (method == "/grpc.health.v1.Health/Watch")
    return std::make_unique<WatchCall>();
  return nullptr;
}

std::unique_ptr<StandardCall> openStandardCall(const std::string& method) {
  auto call = openHealthCall(method);
  return call == nullptr ? openReflectionCall(method) : std::move(call);
}

}  // namespace agent::spf::grpc_transport::internal
