// The sending half of one gRPC stream: one message is under way at a time, the rest wait in order.
#pragma once

#include <grpcpp/support/byte_buffer.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>

namespace agent::spf::grpc_transport::internal {

// Threads: any; written() on the queue's thread. The function that starts a write is called without a lock held, by
// whoever enqueues when nothing is under way, else by written(): so a long transfer runs on the queue's thread alone.
class FrameSender {
 public:
  // How many messages wait at most before a sender of bulk data is made to wait, and how few before it may go on.
  static constexpr std::size_t kHighWater = 12;
  static constexpr std::size_t kLowWater = 4;

  // False when the stream takes no more.
  using StartWrite = std::function<bool(const grpc::ByteBuffer&)>;

  explicit FrameSender(StartWrite startWrite) : startWrite_(std::move(startWrite)) {}

  // False, and nothing sent, once the sender is broken.
  bool enqueue(const grpc::ByteBuffer& message);
  // As above, after waiting while many messages wait.
  bool enqueueBulk(const grpc::ByteBuffer& message);
  // The write under way has ended.
  void written(bool ok);
  // Drops what waits; nothing more will be sent.
  void breakOff();
  bool isBroken() const;
  // Runs `action` once no write is under way and none waits: now, or in written().
  void whenIdle(std::function<void()> action);

 private:
  bool start(std::unique_lock<std::mutex>& lock, const grpc::ByteBuffer& message);
  bool enqueueLocked(std::unique_lock<std::mutex>& lock, const grpc::ByteBuffer& message);

  StartWrite startWrite_;
  mutable std::mutex mutex_;
  std::condition_variable room_;
  std::deque<grpc::ByteBuffer> waiting_;  // guarded by mutex_, as all below
  bool writing_ = false;
  bool broken_ = false;
  std::function<void()> whenIdle_;
};

}  // namespace agent::spf::grpc_transport::internal
