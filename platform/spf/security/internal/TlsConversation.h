// A TLS client's side of a connection over somebody else's socket, with an end to its patience. For diagnosis: nothing
// of it is fast.
#pragma once

#include <chrono>
#include <string>

#include "platform/spf/security/Credentials.h"
#include "platform/spf/security/diagnoseTls.h"
#include "platform/spf/security/internal/openssl.h"

namespace agent::spf::security::internal {

class TlsConversation {
 public:
  enum class Outcome { done, closed, failed, timedOut };

  // Without credentials nobody's certificate is checked and none is shown.
  TlsConversation(int socket, const std::string& host, const Credentials* credentials, const Patience& patience);
  TlsConversation(const TlsConversation&) = delete;
  TlsConversation& operator=(const TlsConversation&) = delete;

  Outcome handshake();
  // Says hello as an HTTP/2 client and waits for anything to come back.
  Outcome exchange();

  // The other end has shown a certificate, good or bad.
  bool sawCertificate() const noexcept { return peer_ != nullptr; }
  // That certificate; null if it has shown none.
  X509* peer() const noexcept { return peer_.get(); }
  // X509_V_OK unless the certificate was refused.
  int refusal() const noexcept { return refusal_; }
  // OpenSSL's reason when something failed: an alert, or what was wrong with the bytes.
  int reason() const noexcept { return reason_; }

 private:
  template <class Operation>
  Outcome run(Operation operation);
  Outcome receive();
  void sendPending();
  bool awaitBytes() const;
  void setIdentity(const Credentials& credentials);
  void setAuthority(const Credentials& credentials);
  void expectHost(const std::string& host);
  static int onCertificate(int ok, X509_STORE_CTX* chain);

  const int socket_;
  const std::function<void()>& poll_;
  const std::chrono::steady_clock::time_point end_;
  Context context_;
  Session session_;
  Certificate peer_;
  int refusal_ = X509_V_OK;
  int reason_ = 0;
};

}  // namespace agent::spf::security::internal
