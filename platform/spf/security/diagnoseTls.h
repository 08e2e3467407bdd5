// Finds out what keeps two ends from agreeing on TLS, by trying once more in slow motion. The framework's own library
// says no more than that a handshake failed.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "platform/spf/security/Credentials.h"

namespace agent::spf::security {

// How long to wait for the other end, whatever it does.
struct Patience {
  std::chrono::milliseconds limit;
  // Asked about every 50 ms; may throw to give up. May be empty.
  std::function<void()> poll;
};

// Speaks TLS as a client over the connected socket, which may be a non-blocking one, and says in half a sentence what
// was wrong and what to do about it. Empty: nothing was. `host`: what the service's certificate has to name.
// `plainTextAdvice`: how the user asks for plain text; may be empty.
// Throws std::runtime_error when OpenSSL itself fails.
std::string whyTlsFails(int socket, const std::string& host, const Credentials& credentials, const Patience& patience,
                        const std::string& plainTextAdvice);

// " (advice)"; nothing where there is none.
std::string inBrackets(const std::string& advice);

// Whether what is at the other end of the connected socket answers a TLS client as one.
bool speaksTls(int socket, const Patience& patience);

}  // namespace agent::spf::security
