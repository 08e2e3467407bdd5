#include "platform/spf/security/internal/openssl.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <array>
#include <climits>
#include <ctime>
#include <stdexcept>

namespace agent::spf::security::internal {

namespace {

Bio viewOf(const std::string& pem) {
  if (pem.size() > INT_MAX)
    return nullptr;
  return Bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
}

// A key with a password is of no use to a program that nobody sits in front of.
int noPassword(char* /*buffer*/, int /*size*/, int /*forWriting*/, void* /*data*/) {
  return -1;
}

std::string textOf(const ASN1_STRING* text) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
          static_cast<std::size_t>(ASN1_STRING_length(text))};
}

std::string addressText(const ASN1_OCTET_STRING* bytes) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const int family = ASN1_STRING_length(bytes) == 4 ? AF_INET : AF_INET6;
  if (ASN1_STRING_length(bytes) != 4 && ASN1_STRING_length(bytes) != 16)
    return {};
  return ::inet_ntop(family, ASN1_STRING_get0_data(bytes), text.data(), text.size()) != nullptr ? text.data() : "";
}

}  // namespace

std::vector<Certificate> readCertificates(const std::string& pem) {
  std::vector<Certificate> certificates;
  const Bio text = viewOf(pem);
  ERR_clear_error();
  while (X509* next = PEM_read_bio_X509(text.get(), nullptr, noPassword, nullptr))
    certificates.emplace_back(next);
  const bool atEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  ERR_clear_error();
  if (!atEnd)
    certificates.clear();
  return certificates;
}

Key readPrivateKey(const std::string& pem) {
  const Bio text = viewOf(pem);
  Key key(PEM_read_bio_PrivateKey(text.get(), nullptr, noPassword, nullptr));
  ERR_clear_error();
  return key;
}

bool belongTogether(X509* certificate, EVP_PKEY* key) {
  const bool same = X509_check_private_key(certificate, key) == 1;
  ERR_clear_error();
  return same;
}

std::string subjectOf(X509* certificate) {
  const Bio out(BIO_new(BIO_s_mem()));
  X509_NAME_print_ex(out.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253);
  char* text = nullptr;
  const long size = BIO_get_mem_data(out.get(), &text);
  return {text, static_cast<std::size_t>(size)};
}

std::chrono::system_clock::time_point endOf(X509* certificate) {
  std::tm time{};
  if (ASN1_TIME_to_tm(X509_get0_notAfter(certificate), &time) != 1)
    return {};
  return std::chrono::system_clock::from_time_t(::timegm(&time));
}

std::vector<std::string> hostsOf(X509* certificate) {
  std::vector<std::string> hosts;
  const Names names(static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
    if (name->type == GEN_DNS)
      hosts.push_back(textOf(name->d.dNSName));
    else if (name->type == GEN_IPADD)
      hosts.push_back(addressText(name->d.iPAddress));
  }
  return hosts;
}

void require(bool ok, const char* what) {
  if (ok)
    return;
  const char* reason = ERR_reason_error_string(ERR_peek_last_error());
  const std::string text = std::string(what) + " failed" + (reason != nullptr ? std::string(": ") + reason : "");
  ERR_clear_error();
  throw std::runtime_error(text);
}

}  // namespace agent::spf::security::internal
