// Who is at the other end of a call, as far as the transport can vouch for it.
#pragma once

#include <string>

namespace agent::spf::core {

// What a peer may be used for. Whoever is let in has one role, by its credential; today every credential is a client's.
// A method names the roles that may call it: `none` is never among them.
enum class PeerRole { none, client, worker };

struct PeerIdentity {
  PeerRole role = PeerRole::none;
  // "process 4711": a caller in this process. "user 1000": a process of that user, by a socket file. "certificate zks
  // client": the common name that the authority has signed. Empty: the role was given to everybody who gets through.
  std::string name = {};
};

}  // namespace agent::spf::core
