#include "platform/spf/grpc/internal/endpoint/transportSecurity.h"

#include "platform/spf/grpc/internal/endpoint/address.h"
#include "platform/spf/grpc/internal/server/TokenCheck.h"

namespace agent::spf::grpc_transport::internal {

std::string whyUnguarded(const std::string& address, const std::optional<security::Credentials>& credentials,
                         bool plainText) {
  if (credentials) {
    security::checkCredentials(*credentials);
    return plainText ? "credentials and plain text exclude each other" : "";
  }
  if (plainText || isUnixAddress(address))
    return {};
  return "TCP needs credentials, or the option plainText, with which whoever reaches the port may call, and read along";
}

std::shared_ptr<grpc::ChannelCredentials> channelCredentials(const std::optional<security::Credentials>& credentials) {
  if (!credentials)
    return grpc::InsecureChannelCredentials();
  grpc::SslCredentialsOptions options;
  options.pem_root_certs = credentials->authority;
  options.pem_cert_chain = credentials->certificate;
  options.pem_private_key = credentials->privateKey;
  return grpc::CompositeChannelCredentials(grpc::SslCredentials(options),
                                           grpc::AccessTokenCredentials(credentials->token));
}

std::shared_ptr<grpc::ServerCredentials> serverCredentials(const std::optional<security::Credentials>& credentials) {
  if (!credentials)
    return grpc::InsecureServerCredentials();
  grpc::SslServerCredentialsOptions options(GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
  options.pem_root_certs = credentials->authority;
  options.pem_key_cert_pairs.push_back({credentials->privateKey, credentials->certificate});
  auto made = grpc::SslServerCredentials(options);
  made->SetAuthMetadataProcessor(std::make_shared<TokenCheck>(credentials->token));
  return made;
}

}  // namespace agent::spf::grpc_transport::internal
