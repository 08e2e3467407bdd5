// Makes certificates and looks at them. Everything is PEM text; keys are ECDSA P-256 without a password.
//
// Times:  the caller says what time it is. A certificate is valid from an hour before that, so that clocks may differ
//         a little, and never longer than its authority.
// Errors: std::runtime_error when OpenSSL fails or a text is not what it should be; no secret is in its text.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace agent::spf::security {

using Time = std::chrono::system_clock::time_point;

// How long what is made lasts.
inline constexpr std::chrono::hours kAuthorityLife{24 * 365 * 20};
inline constexpr std::chrono::hours kCertificateLife{24 * 365 * 2};

// A certificate with its key.
struct Identity {
  std::string certificate;
  std::string privateKey;
};

// A server's certificate cannot be used as a client's, nor the other way round.
enum class Role { server, client };

std::string makePrivateKey();
// 256 random bits as 43 characters that a header can carry.
std::string makeToken();
// A new authority, with a name that no other has.
Identity makeAuthority(Time now);
// A certificate for the key. `hosts`, for a server: the names and addresses that clients may connect to.
std::string issueCertificate(const Identity& authority, const std::string& privateKey, Role role,
                             const std::vector<std::string>& hosts, Time now);

struct CertificateFacts {
  std::vector<std::string> hosts;
  Time end;  // the certificate is invalid from then on
};
CertificateFacts describeCertificate(const std::string& certificate);

// Whether it bears the signature of one of the authorities. Says nothing about its time.
bool isIssuedBy(const std::string& certificate, const std::string& authorities);
bool hasKey(const std::string& certificate, const std::string& privateKey);

// Whether a certificate can name this host: a DNS name or an address.
bool isHost(std::string_view text);
// The one way of writing a host: addresses as inet_ntop() has them, names in lower case.
std::string normalHost(std::string_view host);

// "2031-05-01 12:00 UTC"
std::string timeText(Time time);

}  // namespace agent::spf::security
