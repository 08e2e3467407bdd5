// The few buffers in which one stream gathers outgoing bytes: filled, lent to gRPC, and taken back when it has sent
// them.
#pragma once

#include <grpcpp/support/slice.h>

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace agent::spf::grpc_transport::internal {

// A few, so that one can be filled while others are on their way; each is made when it is first needed.
// Threads: any. Ownership: a buffer that gRPC still holds keeps itself alive beyond this object.
class SendBuffers {
 public:
  static constexpr std::size_t kBufferBytes = std::size_t{256} << 10;
  static constexpr std::size_t kBuffers = 3;

  using Buffer = std::unique_ptr<char[]>;

  SendBuffers() { free_.reserve(kBuffers); }

  // Waits for a free buffer. Null once stopped.
  Buffer acquire();
  // A slice over the first bytes of the buffer; the buffer comes back when the slice is no longer used. When this
  // throws, the buffer is the caller's still.
  static grpc::Slice lend(const std::shared_ptr<SendBuffers>& self, Buffer&& buffer, std::size_t nbytes);
  void giveBack(Buffer buffer) noexcept;
  // Nobody will wait from now on.
  void stop();

 private:
  std::mutex mutex_;
  std::condition_variable returned_;
  std::vector<Buffer> free_;  // guarded by mutex_, as all below
  std::size_t made_ = 0;
  bool stopped_ = false;
};

}  // namespace agent::spf::grpc_transport::internal
