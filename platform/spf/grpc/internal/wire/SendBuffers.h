// The few buffers in which one stream gathers outgoing bytes: filled, lent to gRPC, and taken back when it has sent
// them.
#pragma once

#include <grpcpp/support/slice.h>

#include <cstddef>
#include <memory>
#include <vector>

#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

// A few, so that one can be filled while others are on their way; each is made when it is first needed.
// Threads: any. Ownership: a buffer that gRPC still holds keeps itself alive beyond this object.
class SendBuffers {
 public:
  static constexpr std::size_t kBufferBytes = std::size_t{256} << 10;
  static constexpr std::size_t kBuffers = 3;

  using Buffer = std::unique_ptr<char[]>;

  SendBuffers();

  // Waits for a free buffer. Null once stopped.
  Buffer acquire();
  // A slice over the first bytes of the buffer; the buffer comes back when the slice is no longer used. When this
  // throws, the buffer is the caller's still.
  static grpc::Slice lend(const std::shared_ptr<SendBuffers>& self, Buffer&& buffer, std::size_t nbytes);
  void giveBack(Buffer buffer) noexcept;
  // Nobody will wait from now on.
  void stop();

 private:
  parallel::threads::Mutex mutex_;
  parallel::threads::ConditionVariable returned_;
  std::vector<Buffer> free_ ZKS_GUARDED_BY(mutex_);
  std::size_t made_ ZKS_GUARDED_BY(mutex_) = 0;
  bool stopped_ ZKS_GUARDED_BY(mutex_) = false;
};

}  // namespace agent::spf::grpc_transport::internal
