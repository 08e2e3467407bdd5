// OpenSSL's objects with owners, and the few questions that are asked of them. Its headers are included in
// platform/spf/security only.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace agent::spf::security::internal {

template <auto free>
struct Freed {
  template <class T>
  void operator()(T* object) const noexcept {
    free(object);
  }
};

using Bio = std::unique_ptr<BIO, Freed<BIO_free_all>>;
using Key = std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freed<X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Freed<X509_EXTENSION_free>>;
using BigNumber = std::unique_ptr<BIGNUM, Freed<BN_free>>;
using Names = std::unique_ptr<GENERAL_NAMES, Freed<GENERAL_NAMES_free>>;
using Context = std::unique_ptr<SSL_CTX, Freed<SSL_CTX_free>>;
using Session = std::unique_ptr<SSL, Freed<SSL_free>>;

// The certificates of a PEM text, in their order; none when it holds none or one that cannot be read.
std::vector<Certificate> readCertificates(const std::string& pem);
// Null when the text holds none, or one with a password.
Key readPrivateKey(const std::string& pem);

bool belongTogether(X509* certificate, EVP_PKEY* key);
std::string subjectOf(X509* certificate);
std::chrono::system_clock::time_point endOf(X509* certificate);
// The hosts that it names: names, and addresses as text.
std::vector<std::string> hostsOf(X509* certificate);

// Throws std::runtime_error that names `what` and OpenSSL's reason, unless `ok`.
void require(bool ok, const char* what);

}  // namespace agent::spf::security::internal
