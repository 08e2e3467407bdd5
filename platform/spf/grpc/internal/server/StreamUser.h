// What one stream of a server is used for, once its client has opened it: calls of the service (Conversation), or a
// standard service (standard/StandardStream).
#pragma once

#include <grpcpp/support/byte_buffer.h>

namespace agent::spf::grpc_transport::internal {

// Ownership: belongs to its stream, which calls it and which it may use. Threads: drain() and wantsMessage() on any, the
// rest on the one that serves the queue.
class StreamUser {
 public:
  StreamUser() = default;
  virtual ~StreamUser() = default;
  StreamUser(const StreamUser&) = delete;
  StreamUser& operator=(const StreamUser&) = delete;

  // Whether there is room for another message. Asked again when a message of the stream has gone out; whoever makes room
  // otherwise calls ServerStream::readNext(). Called with a lock of the stream held.
  virtual bool wantsMessage() = 0;
  virtual void receive(const grpc::ByteBuffer& message) = 0;
  // The client sends no more: it has half-closed the stream, or it is gone.
  virtual void halfClosed() = 0;
  // The server takes no more calls. May come more than once.
  virtual void drain() = 0;
  // The stream is over, whichever side ended it.
  virtual void over() = 0;
};

}  // namespace agent::spf::grpc_transport::internal
