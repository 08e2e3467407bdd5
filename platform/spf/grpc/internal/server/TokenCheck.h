// Lets in only calls that bring the token. gRPC asks before it looks at the method, so none is left out.
#pragma once

#include <grpcpp/security/auth_metadata_processor.h>

#include <string>
#include <string_view>

#include "platform/spf/grpc/internal/endpoint/RepeatedLines.h"

namespace agent::spf::grpc_transport::internal {

class TokenCheck : public grpc::AuthMetadataProcessor {
 public:
  explicit TokenCheck(std::string token) : token_(std::move(token)) {}

  bool IsBlocking() const override { return false; }
  grpc::Status Process(const InputMetadata& metadata, grpc::AuthContext* peer, OutputMetadata* consumed,
                       OutputMetadata* reply) override;

 private:
  grpc::Status refuse(const grpc::AuthContext* peer, const char* problem, const char* advice);

  const std::string token_;
  RepeatedLines refusals_;
};

}  // namespace agent::spf::grpc_transport::internal
