// For tests: what the bytes of an ErrorChain say, by the generated parser and without any bound.
#pragma once

#include <algorithm>

#include "platform/spf/core/errorChain.h"
#include "platform/spf/grpc/internal/wire/errorMessage.h"
#include "platform/spf/grpc/transport.pb.h"

namespace agent::spf::testing {

inline core::ErrorChain chainOf(const v1::ErrorChain& message) {
  core::ErrorChain chain;
  bool continues = false;
  for (const v1::ErrorChain::Level& level : message.levels()) {
    const bool known = v1::ErrorChain::Level::Kind_IsValid(level.kind());
    const auto kind = known ? static_cast<core::ErrorLevel::Kind>(level.kind()) : core::ErrorLevel::Kind::unknown;
    if (continues)
      chain.back().text += level.text();
    else
      chain.push_back({kind, level.component(), level.name(), level.text()});
    continues = level.continues();
  }
  return chain;
}

// True when the bytes of `expected` were received as `found`.
inline bool saysTheSame(const grpc_transport::internal::ReceivedError& found, const v1::ErrorChain& expected) {
  const core::ErrorChain chain = chainOf(expected);
  const std::size_t kept = std::min(chain.size(), core::kMaxErrorLevels + 1);
  const bool continues = expected.levels_size() > 0 && expected.levels().rbegin()->continues();
  return std::equal(chain.begin(), chain.begin() + static_cast<std::ptrdiff_t>(kept), found.levels.begin(),
                    found.levels.end()) &&
         found.leftOut == chain.size() - kept && found.continues == continues;
}

}  // namespace agent::spf::testing
