// Error chains as the ErrorChain message of transport.proto, whole or in parts.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/spf/core/errorChain.h"
#include "platform/spf/grpc/transport.pb.h"

namespace agent::spf::grpc_transport::internal {

// Bytes of text in one part of an error, at most.
inline constexpr std::size_t kErrorPartBytes = std::size_t{256} << 10;

// Component and name are made well-formed UTF-8 where they are not; the text's bytes travel as they are.
v1::ErrorChain toMessage(const core::ErrorChain& chain);
// As above, cut into parts; at least one.
std::vector<v1::ErrorChain> toParts(const core::ErrorChain& chain);
// The text with what is no UTF-8 in it replaced.
std::string wellFormed(const std::string& text);
// A kind that this code does not know becomes unknown.
core::ErrorChain fromMessage(const v1::ErrorChain& message);

// Puts the parts of one error together.
class ErrorParts {
 public:
  // FrameworkError when more comes than an error can have.
  void add(const v1::ErrorChain& part);
  core::ErrorChain finish(const v1::ErrorChain& last);

 private:
  v1::ErrorChain gathered_;
  std::size_t bytes_ = 0;
};

}  // namespace agent::spf::grpc_transport::internal
