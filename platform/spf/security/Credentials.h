// What one end of a connection shows the other, and by what it judges what it is shown.
//
// The trap: two of the four are secrets. They are never printed: what a stream is given is a text that says so.
#pragma once

#include <ostream>
#include <string>
#include <string_view>

namespace agent::spf::security {

struct Credentials {
  std::string authority;    // PEM: certificates of the authorities that the other end's certificate must come from
  std::string certificate;  // PEM: one's own certificate, then those between it and its authority, if any
  std::string privateKey;   // PEM, secret: belongs to `certificate`
  std::string token;        // secret, the same at both ends: letters, digits and -._~+/=
};

// Nothing but that there are credentials, and of whom.
std::ostream& operator<<(std::ostream& out, const Credentials& credentials);

// FrameworkError, without any secret, when a part is missing or unreadable, or the key is another certificate's.
void checkCredentials(const Credentials& credentials);

// Whether the two are equal, in a time that does not tell where they differ.
bool isSameSecret(std::string_view one, std::string_view other) noexcept;

}  // namespace agent::spf::security
