// What the service framework is measured against: bare gRPC on completion queues and raw sockets, client and server as
// two processes.
//
// Every server runs in a process of its own, which is this program again with "--serve KIND ADDRESS".
#pragma once

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

// Keeps freed memory with malloc: gRPC allocates its read buffers anew for each message, and each would come back
// through page faults. Both processes of every contender do the same.
void keepFreedMemory();

// Runs a server if the arguments say so and returns true; main() is then to end.
bool serveIfAsked(int argc, char** argv);

// A server process; it ends with this object.
class ServerProcess {
 public:
  ServerProcess(const std::string& kind, const std::string& address);
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  // With the real port.
  const std::string& address() const noexcept { return address_; }

 private:
  int pid_ = -1;
  int stdin_ = -1;
  std::string address_;
};

// One client of a kind of server. The bytes sent are those of `payload`; what comes back is stored in `back`.
class Peer {
 public:
  virtual ~Peer() = default;
  // Sends all; returns when the server has stored all.
  virtual void sink(const std::vector<char>& payload) = 0;
  // Sends all and gets it back while sending.
  virtual void echo(const std::vector<char>& payload, std::vector<char>& back) = 0;
  // 64 bytes each way.
  virtual void ping() = 0;
  // So many of these, `inFlight` of them at a time. Of kinds "spf" and "unary".
  virtual void pings(int calls, int inFlight);
};

// Kinds: "spf"; "bare256" and "bare1024" (gRPC streams with frames of that many KiB; ping is a message on an open
// stream); "unary" (ping is a unary call, the rest as bare); "raw".
std::unique_ptr<Peer> connectPeer(const std::string& kind, const std::string& address);

// Addresses of this kind that the system chooses: "tcp", "unix" or "tls", which is TCP with certificates at both ends;
// a raw peer has none of that.
std::string freshAddress(const std::string& family);

inline void Peer::pings(int /*calls*/, int /*inFlight*/) {
  throw std::logic_error("this kind of peer makes one call after another");
}

}  // namespace bench
