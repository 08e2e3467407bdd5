#include "platform/spf/security/Certificates.h"

#include <arpa/inet.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>
#include <stdexcept>

#include "platform/spf/security/internal/openssl.h"

namespace agent::spf::security {

namespace {

using internal::Bio;
using internal::Certificate;
using internal::Key;
using internal::require;

constexpr std::chrono::hours kClockSkew{1};

template <std::size_t size>
std::array<unsigned char, size> randomBytes() {
  std::array<unsigned char, size> bytes{};
  require(RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) == 1, "making random bytes");
  return bytes;
}

// A PEM text as OpenSSL writes it.
template <class Write>
std::string pemOf(const char* what, Write write) {
  const Bio out(BIO_new(BIO_s_mem()));
  require(out != nullptr && write(out.get()) == 1, what);
  char* text = nullptr;
  const long size = BIO_get_mem_data(out.get(), &text);
  return {text, static_cast<std::size_t>(size)};
}

Key keyOf(const std::string& pem) {
  Key key = internal::readPrivateKey(pem);
  if (key == nullptr)
    throw std::runtime_error("a private key cannot be read");
  return key;
}

Certificate certificateOf(const std::string& pem) {
  auto chain = internal::readCertificates(pem);
  if (chain.empty())
    throw std::runtime_error("a certificate cannot be read");
  return std::move(chain.front());
}

void setSerial(X509* certificate) {
  auto bytes = randomBytes<16>();
  bytes[0] &= 0x7F;  // positive
  const internal::BigNumber number(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
  require(BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr, "numbering a certificate");
}

void setTimes(X509* certificate, Time begin, Time end) {
  using Clock = std::chrono::system_clock;
  require(ASN1_TIME_set(X509_getm_notBefore(certificate), Clock::to_time_t(begin)) != nullptr &&
              ASN1_TIME_set(X509_getm_notAfter(certificate), Clock::to_time_t(end)) != nullptr,
          "dating a certificate");
}

void setSubject(X509* certificate, const std::string& name) {
  require(X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(name.data()), static_cast<int>(name.size()),
                                     -1, 0) == 1,
          "naming a certificate");
}

void addExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const internal::Extension extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
  require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1, "extending a certificate");
}

void sign(X509* certificate, EVP_PKEY* key) {
  require(X509_sign(certificate, key, EVP_sha256()) > 0, "signing a certificate");
}

Certificate blank(EVP_PKEY* key, const std::string& subject) {
  Certificate certificate(X509_new());
  require(certificate != nullptr && X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
              X509_set_pubkey(certificate.get(), key) == 1,
          "making a certificate");
  setSerial(certificate.get());
  setSubject(certificate.get(), subject);
  return certificate;
}

std::string pemOfCertificate(X509* certificate) {
  return pemOf("writing a certificate", [&](BIO* out) { return PEM_write_bio_X509(out, certificate); });
}

bool isAddress(const std::string& host) {
  std::array<unsigned char, sizeof(in6_addr)> bytes{};
  return ::inet_pton(AF_INET, host.c_str(), bytes.data()) == 1 ||
         ::inet_pton(AF_INET6, host.c_str(), bytes.data()) == 1;
}

std::string hostList(const std::vector<std::string>& hosts) {
  std::string list;
  for (const std::string& host : hosts)
    list += (list.empty() ? "" : ",") + std::string(isAddress(host) ? "IP:" : "DNS:") + host;
  return list;
}

}  // namespace

std::string makePrivateKey() {
  const Key key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  require(key != nullptr, "making a private key");
  return pemOf("writing a private key", [&](BIO* out) {
    return PEM_write_bio_PKCS8PrivateKey(out, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  });
}

std::string makeToken() {
  const auto bytes = randomBytes<32>();
  std::array<unsigned char, 64> text{};
  const int size = EVP_EncodeBlock(text.data(), bytes.data(), static_cast<int>(bytes.size()));
  std::string token(reinterpret_cast<const char*>(text.data()), static_cast<std::size_t>(size));
  std::replace(token.begin(), token.end(), '+', '-');
  std::replace(token.begin(), token.end(), '/', '_');
  while (token.ends_with('='))
    token.pop_back();
  return token;
}

Identity makeAuthority(Time now) {
  const std::string privateKey = makePrivateKey();
  const Key key = keyOf(privateKey);
  const std::string name = "zks authority " + makeToken().substr(0, 8);
  const Certificate certificate = blank(key.get(), name);
  X509* const raw = certificate.get();
  setTimes(raw, now - kClockSkew, now + kAuthorityLife);
  require(X509_set_issuer_name(raw, X509_get_subject_name(raw)) == 1, "naming a certificate");
  addExtension(raw, raw, NID_basic_constraints, "critical,CA:TRUE,pathlen:0");
  addExtension(raw, raw, NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(raw, raw, NID_subject_key_identifier, "hash");
  sign(raw, key.get());
  return {pemOfCertificate(raw), privateKey};
}

std::string issueCertificate(const Identity& authority, const std::string& privateKey, Role role,
                             const std::vector<std::string>& hosts, Time now) {
  const Certificate issuer = certificateOf(authority.certificate);
  const Key issuerKey = keyOf(authority.privateKey);
  const Key key = keyOf(privateKey);
  const bool isServer = role == Role::server;
  const Certificate certificate = blank(key.get(), isServer ? "zks service" : "zks client");
  X509* const raw = certificate.get();
  setTimes(raw, now - kClockSkew, std::min(now + kCertificateLife, internal::endOf(issuer.get())));
  require(X509_set_issuer_name(raw, X509_get_subject_name(issuer.get())) == 1, "naming a certificate");
  addExtension(raw, issuer.get(), NID_basic_constraints, "critical,CA:FALSE");
  addExtension(raw, issuer.get(), NID_key_usage, "critical,digitalSignature");
  addExtension(raw, issuer.get(), NID_ext_key_usage, isServer ? "serverAuth" : "clientAuth");
  addExtension(raw, issuer.get(), NID_subject_key_identifier, "hash");
  addExtension(raw, issuer.get(), NID_authority_key_identifier, "keyid:always");
  if (!hosts.empty())
    addExtension(raw, issuer.get(), NID_subject_alt_name, hostList(hosts));
  sign(raw, issuerKey.get());
  return pemOfCertificate(raw);
}

CertificateFacts describeCertificate(const std::string& certificate) {
  const Certificate read = certificateOf(certificate);
  return {internal::hostsOf(read.get()), internal::endOf(read.get())};
}

bool isIssuedBy(const std::string& certificate, const std::string& authorities) {
  const Certificate read = certificateOf(certificate);
  for (const Certificate& authority : internal::readCertificates(authorities)) {
    const bool named = X509_check_issued(authority.get(), read.get()) == X509_V_OK;
    const bool verified = named && X509_verify(read.get(), X509_get0_pubkey(authority.get())) == 1;
    ERR_clear_error();
    if (verified)
      return true;
  }
  return false;
}

bool hasKey(const std::string& certificate, const std::string& privateKey) {
  const auto chain = internal::readCertificates(certificate);
  const Key key = internal::readPrivateKey(privateKey);
  return !chain.empty() && key != nullptr && internal::belongTogether(chain.front().get(), key.get());
}

bool isHost(std::string_view text) {
  constexpr std::string_view kNameCharacters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._*";
  constexpr std::size_t kLongestName = 253;
  if (text.empty() || text.size() > kLongestName)
    return false;
  return text.find_first_not_of(kNameCharacters) == std::string_view::npos || isAddress(std::string(text));
}

std::string normalHost(std::string_view host) {
  std::string text(host);
  std::array<unsigned char, sizeof(in6_addr)> bytes{};
  std::array<char, INET6_ADDRSTRLEN> address{};
  if (::inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1)
    return ::inet_ntop(AF_INET6, bytes.data(), address.data(), address.size());
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string timeText(Time time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M UTC", &parts);
  return text.data();
}

}  // namespace agent::spf::security
