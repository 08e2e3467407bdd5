// Where a transport takes outgoing bytes: what an OutputStreambuf writes to.
#pragma once

#include <cstddef>
#include <span>

namespace agent::spf::core::internal {

// Threads: one at a time. Errors: every call may throw what ended the transfer, and then throws it again.
class ByteOutlet {
 public:
  virtual ~ByteOutlet() = default;

  // Room to gather small writes in; waits until some is free. Valid until sendGathered or finish.
  virtual std::span<char> room() = 0;
  // Sends the first `nbytes` of the room that was handed out last. 0 only makes sure that the head is on its way.
  virtual void sendGathered(std::size_t nbytes) = 0;
  // Sends bytes of the caller, without a copy: the transport is done with them when this returns.
  virtual void sendBorrowed(std::span<const char> bytes) = 0;
  // As sendGathered, and ends the transfer.
  virtual void finish(std::size_t nbytes) = 0;
};

}  // namespace agent::spf::core::internal
