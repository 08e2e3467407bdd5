// How a connection is guarded: by TLS and a token when there are credentials, else by nothing but a socket file's
// permissions, or an explicit word.
#pragma once

#include <grpcpp/security/credentials.h>
#include <grpcpp/security/server_credentials.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/spf/security/Credentials.h"

namespace agent::spf::grpc_transport::internal {

// Half a sentence that says what is wrong with this choice, and what to do: TCP without credentials wants the word
// `plainText`. Empty when nothing is. FrameworkError when the credentials cannot be used.
std::string whyUnguarded(const std::string& address, const std::optional<security::Credentials>& credentials,
                         bool plainText);

std::shared_ptr<grpc::ChannelCredentials> channelCredentials(const std::optional<security::Credentials>& credentials);
// With credentials every call of every method has to bring the token.
std::shared_ptr<grpc::ServerCredentials> serverCredentials(const std::optional<security::Credentials>& credentials);

}  // namespace agent::spf::grpc_transport::internal
