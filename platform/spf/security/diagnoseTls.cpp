#include "platform/spf/security/diagnoseTls.h"

#include <openssl/sslerr.h>

#include "platform/spf/security/Certificates.h"
#include "platform/spf/security/internal/TlsConversation.h"

namespace agent::spf::security {

namespace {

using internal::TlsConversation;
using Outcome = TlsConversation::Outcome;

constexpr const char* kGetFilesAnew = "get ca.pem, client.pem, client-key.pem and token of this service anew";

std::string listOf(const std::vector<std::string>& hosts) {
  std::string list;
  for (const std::string& host : hosts)
    list += (list.empty() ? "" : ", ") + host;
  return list.empty() ? "nothing" : list;
}

std::string whyServiceRefused(const TlsConversation& conversation, const std::string& host) {
  X509* const certificate = conversation.peer();
  switch (conversation.refusal()) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return "the service's certificate expired on " + timeText(internal::endOf(certificate)) +
             "; restart the service, which renews it";
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return "the service's certificate is not valid yet; set the clocks of the two machines";
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return "the service's certificate is for " + listOf(internal::hostsOf(certificate)) + ", not for " + host +
             "; connect by one of these, or start the service with this name (zksd --tls-name " + host + ")";
    case X509_V_ERR_INVALID_PURPOSE:
      return "what listens there shows a client's certificate, not a service's; see who it is";
    default:
      return std::string("the service's certificate does not come from the authority that is trusted here; ") +
             kGetFilesAnew;
  }
}

// What an expired or foreign certificate is refused with, where the service says so; many just hang up.
std::string whyClientRefused(const Credentials& credentials, int reason) {
  const Time end = describeCertificate(credentials.certificate).end;
  if (reason == SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED || end < std::chrono::system_clock::now())
    return "the service does not accept this client's certificate, which expired on " + timeText(end) + "; " +
           kGetFilesAnew;
  if (reason == SSL_R_TLSV1_ALERT_UNKNOWN_CA || !isIssuedBy(credentials.certificate, credentials.authority))
    return std::string("the service does not accept this client's certificate, which another authority signed; ") +
           kGetFilesAnew;
  return std::string("the service does not accept this client's certificate; ") + kGetFilesAnew;
}

bool isAboutClientCertificate(int reason) {
  switch (reason) {
    case SSL_R_SSLV3_ALERT_BAD_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN:
    case SSL_R_TLSV1_ALERT_UNKNOWN_CA:
    case SSL_R_TLSV1_ALERT_DECRYPT_ERROR:
    case SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED:
      return true;
    default:
      return false;
  }
}

}  // namespace

std::string inBrackets(const std::string& advice) {
  return advice.empty() ? "" : " (" + advice + ")";
}

std::string whyTlsFails(int socket, const std::string& host, const Credentials& credentials, const Patience& patience,
                        const std::string& plainTextAdvice) {
  TlsConversation conversation(socket, host, &credentials, patience);
  Outcome outcome = conversation.handshake();
  if (conversation.refusal() != X509_V_OK)
    return whyServiceRefused(conversation, host);
  if (!conversation.sawCertificate())
    return outcome == Outcome::timedOut
               ? "it does not answer a TLS client"
               : "it does not speak TLS; connect in plain text" + inBrackets(plainTextAdvice) +
                     " if that is what the service was told to speak, or start the service with TLS";
  // The client has accepted the service. Under TLS 1.3 it only learns afterwards whether the service accepts it.
  if (outcome == Outcome::done)
    outcome = conversation.exchange();
  const bool hungUp = outcome == Outcome::closed;
  return hungUp || isAboutClientCertificate(conversation.reason())
             ? whyClientRefused(credentials, conversation.reason())
             : "";
}

bool speaksTls(int socket, const Patience& patience) {
  TlsConversation conversation(socket, "", nullptr, patience);
  conversation.handshake();
  return conversation.sawCertificate();
}

}  // namespace agent::spf::security
