#include "platform/spf/security/Credentials.h"

#include <openssl/crypto.h>

#include "platform/spf/core/errors.h"
#include "platform/spf/security/internal/openssl.h"

namespace agent::spf::security {

namespace {

using internal::readCertificates;
using internal::readPrivateKey;

constexpr std::string_view kTokenCharacters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~+/=";

[[noreturn]] void refuse(const std::string& problem) {
  throw FrameworkError("The credentials cannot be used: " + problem + ".");
}

void checkToken(const std::string& token) {
  if (token.empty())
    refuse("they have no token");
  if (token.find_first_not_of(kTokenCharacters) != std::string::npos)
    refuse("the token holds something else than letters, digits and -._~+/=");
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Credentials& credentials) {
  const auto chain = readCertificates(credentials.certificate);
  return out << "[credentials of " << (chain.empty() ? "nobody" : internal::subjectOf(chain.front().get()))
             << ", secrets withheld]";
}

void checkCredentials(const Credentials& credentials) {
  if (readCertificates(credentials.authority).empty())
    refuse("there is no authority's certificate (ca.pem), or it is not PEM");
  const auto chain = readCertificates(credentials.certificate);
  if (chain.empty())
    refuse("they have no certificate, or it is not PEM");
  const auto key = readPrivateKey(credentials.privateKey);
  if (key == nullptr)
    refuse("they have no private key, or it is not PEM without a password");
  if (!internal::belongTogether(chain.front().get(), key.get()))
    refuse("the private key belongs to another certificate");
  checkToken(credentials.token);
}

bool isSameSecret(std::string_view one, std::string_view other) noexcept {
  return one.size() == other.size() && CRYPTO_memcmp(one.data(), other.data(), one.size()) == 0;
}

}  // namespace agent::spf::security
