// Who has opened a stream, as the transport can vouch for it.
#pragma once

#include <grpcpp/security/auth_context.h>
#include <sys/types.h>

#include <optional>
#include <string>

#include "platform/spf/core/PeerIdentity.h"

namespace agent::spf::grpc_transport::internal {

// The common name in the peer's certificate; empty when it has shown none.
std::string commonNameOf(const grpc::AuthContext& peer);

// `client` is its peerText(). `socketUser`: whose processes come by the socket file, if that is one user's.
core::PeerIdentity identityOf(const grpc::AuthContext& peer, const std::string& client,
                              std::optional<uid_t> socketUser);

}  // namespace agent::spf::grpc_transport::internal
