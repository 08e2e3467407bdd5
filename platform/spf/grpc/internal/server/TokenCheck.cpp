#include "platform/spf/grpc/internal/server/TokenCheck.h"

#include <grpcpp/security/auth_context.h>
#include <strings.h>

#include <chrono>

#include "platform/errors/visibleText.h"
#include "platform/logging/createQLVLogger.h"
#include "platform/logging/sinks.h"
#include "platform/spf/grpc/internal/server/peerIdentity.h"
#include "platform/spf/security/Credentials.h"

namespace agent::spf::grpc_transport::internal {

namespace {

constexpr const char* kHeader = "authorization";
constexpr std::string_view kScheme = "Bearer ";

// The token of the header's value; empty when it has another scheme.
std::string_view tokenOf(const grpc::string_ref& value) {
  const std::string_view text(value.data(), value.size());
  if (text.size() <= kScheme.size() || ::strncasecmp(text.data(), kScheme.data(), kScheme.size()) != 0)
    return {};
  return text.substr(kScheme.size());
}

std::string nameOf(const grpc::AuthContext* peer) {
  const std::string name = commonNameOf(*peer);
  return name.empty() ? "nobody" : name;
}

}  // namespace

grpc::Status TokenCheck::Process(const InputMetadata& metadata, grpc::AuthContext* peer, OutputMetadata* consumed,
                                 OutputMetadata* /*reply*/) {
  const auto [first, last] = metadata.equal_range(kHeader);
  if (first == last)
    return refuse(peer, "the call has no token", "send the service's, as \"authorization: Bearer TOKEN\"");
  for (auto header = first; header != last; ++header) {
    if (!security::isSameSecret(tokenOf(header->second), token_))
      return refuse(peer, "the token is not the service's", "get the file token of this service anew");
    // So that no handler ever sees it.
    consumed->insert({std::string(header->first.data(), header->first.size()),
                      std::string(header->second.data(), header->second.size())});
  }
  return grpc::Status::OK;
}

grpc::Status TokenCheck::refuse(const grpc::AuthContext* peer, const char* problem, const char* advice) {
  const std::string line = std::string("A call was refused: ") + problem + " (the client's certificate names " +
                           errors::inQuotes(nameOf(peer)) + ").";
  if (const auto more = refusals_.take(line, std::chrono::steady_clock::now()))
    FOUNDATION_LOG(parallel::logging::createQLVLogger("zks.spf"), parallel::logging::kWarning) << line << *more;
  return {grpc::StatusCode::UNAUTHENTICATED, std::string(problem) + "; " + advice};
}

}  // namespace agent::spf::grpc_transport::internal
