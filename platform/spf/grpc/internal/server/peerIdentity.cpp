#include "platform/spf/grpc/internal/server/peerIdentity.h"

#include "platform/spf/grpc/internal/endpoint/peerText.h"

namespace agent::spf::grpc_transport::internal {

std::string commonNameOf(const grpc::AuthContext& peer) {
  const auto names = peer.FindPropertyValues("x509_common_name");
  return names.empty() ? std::string() : std::string(names.front().data(), names.front().size());
}

// Whoever was let in is a client: by a certificate and the token, by the permissions of the socket file, or because the
// port was opened to all.
core::PeerIdentity identityOf(const grpc::AuthContext& peer, const std::string& client,
                              std::optional<uid_t> socketUser) {
  core::PeerIdentity identity{core::PeerRole::client};
  if (const std::string name = commonNameOf(peer); !name.empty())
    identity.name = "certificate " + name;
  else if (client == kSocketFilePeer && socketUser)
    identity.name = "user " + std::to_string(*socketUser);
  return identity;
}

}  // namespace agent::spf::grpc_transport::internal
