// Error chains as the ErrorChain message of transport.proto.
#pragma once

#include <string>

#include "platform/spf/core/errorChain.h"
#include "platform/spf/grpc/transport.pb.h"

namespace agent::spf::grpc_transport::internal {

// Component and name are made well-formed UTF-8 where they are not; the text's bytes travel as they are.
v1::ErrorChain toMessage(const core::ErrorChain& chain);
// The text with what is no UTF-8 in it replaced.
std::string wellFormed(const std::string& text);
// A kind that this code does not know becomes unknown.
core::ErrorChain fromMessage(const v1::ErrorChain& message);

}  // namespace agent::spf::grpc_transport::internal
