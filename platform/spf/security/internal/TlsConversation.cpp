#include "platform/spf/security/internal/TlsConversation.h"

#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace agent::spf::security::internal {

namespace {

constexpr std::chrono::milliseconds kPollInterval{50};
constexpr std::string_view kHttp2 = "\x02h2";
// An HTTP/2 client's first words: the preface and empty settings.
constexpr std::string_view kHello{"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n\0\0\0\x04\0\0\0\0\0", 33};

}  // namespace

TlsConversation::TlsConversation(int socket, const std::string& host, const Credentials* credentials,
                                 const Patience& patience)
    : socket_(socket),
      poll_(patience.poll),
      end_(std::chrono::steady_clock::now() + patience.limit),
      context_(SSL_CTX_new(TLS_client_method())) {
  require(context_ != nullptr, "setting up TLS");
  SSL_CTX_set_min_proto_version(context_.get(), TLS1_2_VERSION);
  if (credentials != nullptr) {
    setAuthority(*credentials);
    setIdentity(*credentials);
  }
  session_.reset(SSL_new(context_.get()));
  require(session_ != nullptr, "setting up TLS");
  SSL_set_verify(session_.get(), credentials != nullptr ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, onCertificate);
  SSL_set_app_data(session_.get(), this);
  SSL_set_alpn_protos(session_.get(), reinterpret_cast<const unsigned char*>(kHttp2.data()), kHttp2.size());
  if (credentials != nullptr)
    expectHost(host);
  // Over memory, since OpenSSL's own writing to a socket would raise SIGPIPE.
  SSL_set_bio(session_.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
  SSL_set_connect_state(session_.get());
}

void TlsConversation::setAuthority(const Credentials& credentials) {
  X509_STORE* const store = SSL_CTX_get_cert_store(context_.get());
  for (const Certificate& authority : readCertificates(credentials.authority))
    X509_STORE_add_cert(store, authority.get());
}

void TlsConversation::setIdentity(const Credentials& credentials) {
  const auto chain = readCertificates(credentials.certificate);
  const Key key = readPrivateKey(credentials.privateKey);
  if (chain.empty() || key == nullptr)
    return;
  SSL_CTX_use_certificate(context_.get(), chain.front().get());
  for (std::size_t i = 1; i < chain.size(); ++i)
    SSL_CTX_add1_chain_cert(context_.get(), chain[i].get());
  SSL_CTX_use_PrivateKey(context_.get(), key.get());
}

void TlsConversation::expectHost(const std::string& host) {
  X509_VERIFY_PARAM* const expected = SSL_get0_param(session_.get());
  if (X509_VERIFY_PARAM_set1_ip_asc(expected, host.c_str()) == 1)
    return;
  ERR_clear_error();
  SSL_set_tlsext_host_name(session_.get(), host.c_str());
  X509_VERIFY_PARAM_set_hostflags(expected, X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
  X509_VERIFY_PARAM_set1_host(expected, host.data(), host.size());
}

int TlsConversation::onCertificate(int ok, X509_STORE_CTX* chain) {
  const auto* session = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(chain, SSL_get_ex_data_X509_STORE_CTX_idx()));
  auto* self = static_cast<TlsConversation*>(SSL_get_app_data(session));
  X509* const shown = X509_STORE_CTX_get0_cert(chain);
  if (self->peer_ == nullptr && shown != nullptr && X509_up_ref(shown) == 1)
    self->peer_.reset(shown);
  if (ok == 0)
    self->refusal_ = X509_STORE_CTX_get_error(chain);
  return ok;
}

bool TlsConversation::awaitBytes() const {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end_ - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      return false;
    pollfd waiting{socket_, POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(std::min(left, kPollInterval).count())) > 0)
      return true;
    if (poll_)
      poll_();
  }
}

// What the other end does not take at once is lost; the few bytes of a handshake fit into any socket's buffer.
void TlsConversation::sendPending() {
  char* bytes = nullptr;
  BIO* const out = SSL_get_wbio(session_.get());
  const long size = BIO_get_mem_data(out, &bytes);
  if (size > 0)
    static_cast<void>(::send(socket_, bytes, static_cast<std::size_t>(size), MSG_NOSIGNAL));
  BIO_reset(out);
}

TlsConversation::Outcome TlsConversation::receive() {
  if (!awaitBytes())
    return Outcome::timedOut;
  std::array<char, 16384> bytes{};
  const ssize_t size = ::recv(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (size <= 0)
    return Outcome::closed;
  BIO_write(SSL_get_rbio(session_.get()), bytes.data(), static_cast<int>(size));
  return Outcome::done;
}

template <class Operation>
TlsConversation::Outcome TlsConversation::run(Operation operation) {
  for (;;) {
    ERR_clear_error();
    const int result = operation();
    const int error = result > 0 ? SSL_ERROR_NONE : SSL_get_error(session_.get(), result);
    if (error == SSL_ERROR_SSL)
      reason_ = ERR_GET_REASON(ERR_peek_error());
    ERR_clear_error();
    sendPending();
    if (error == SSL_ERROR_NONE)
      return Outcome::done;
    if (error == SSL_ERROR_ZERO_RETURN)
      return Outcome::closed;
    if (error != SSL_ERROR_WANT_READ)
      return Outcome::failed;
    if (const Outcome received = receive(); received != Outcome::done)
      return received;
  }
}

TlsConversation::Outcome TlsConversation::handshake() {
  const Outcome outcome = run([this] { return SSL_do_handshake(session_.get()); });
  if (outcome == Outcome::done && peer_ == nullptr)
    peer_.reset(SSL_get1_peer_certificate(session_.get()));
  return outcome;
}

TlsConversation::Outcome TlsConversation::exchange() {
  const Outcome sent =
      run([this] { return SSL_write(session_.get(), kHello.data(), static_cast<int>(kHello.size())); });
  if (sent != Outcome::done)
    return sent;
  char byte = 0;
  return run([&] { return SSL_read(session_.get(), &byte, 1); });
}

}  // namespace agent::spf::security::internal
