// For tests: an authority, and credentials of its making for both ends.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "platform/spf/security/Certificates.h"
#include "platform/spf/security/Credentials.h"

namespace agent::spf::security::testing {

inline const Time kNow = std::chrono::system_clock::from_time_t(1'800'000'000);  // 2027-01-15 08:00 UTC

class TestAuthority {
 public:
  Credentials server(Time now = std::chrono::system_clock::now(),
                     const std::vector<std::string>& hosts = {"localhost", "127.0.0.1", "::1"}) const {
    return credentials(Role::server, hosts, now);
  }
  Credentials client(Time now = std::chrono::system_clock::now()) const { return credentials(Role::client, {}, now); }
  const Identity& identity() const noexcept { return identity_; }

 private:
  Credentials credentials(Role role, const std::vector<std::string>& hosts, Time now) const {
    const std::string key = makePrivateKey();
    return {identity_.certificate, issueCertificate(identity_, key, role, hosts, now), key, token_};
  }

  // Old enough to have signed what has expired.
  Identity identity_ = makeAuthority(std::chrono::system_clock::now() - std::chrono::hours(24 * 365 * 5));
  std::string token_ = makeToken();
};

// Made so long ago that it has expired.
inline Time longAgo() {
  return std::chrono::system_clock::now() - kCertificateLife - std::chrono::hours(24);
}

}  // namespace agent::spf::security::testing
