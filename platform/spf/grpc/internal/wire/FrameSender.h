// The sending half of one gRPC stream: one message is under way at a time, the rest wait in order.
#pragma once

#include <grpcpp/support/byte_buffer.h>

#include <deque>
#include <functional>
#include <vector>

#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

// Threads: any; written() on the queue's thread. The function that starts a write is called without a lock held, by
// whoever enqueues when nothing is under way, else by written(): so a long transfer runs on the queue's thread alone.
class FrameSender {
 public:
  // How many messages wait at most before a sender of bulk data is made to wait, and how few before it may go on.
  static constexpr std::size_t kHighWater = 12;
  static constexpr std::size_t kLowWater = 4;
  // How many bytes wait before nothing is to be begun that adds to them. For small messages; bulk data waits by itself.
  static constexpr std::size_t kFullBytes = std::size_t{64} << 10;

  // False when the stream takes no more.
  using StartWrite = std::function<bool(const grpc::ByteBuffer&)>;

  explicit FrameSender(StartWrite startWrite) : startWrite_(std::move(startWrite)) {}

  // False, and nothing sent, once the sender is broken off.
  bool enqueue(const grpc::ByteBuffer& message);
  // As above, after waiting while many messages wait.
  bool enqueueBulk(const grpc::ByteBuffer& message);
  // The write under way has ended.
  void written(bool ok);
  // Drops what waits; nothing more will be sent.
  void breakOff();
  bool isBrokenOff() const;
  // No write is under way, and none waits.
  bool isIdle() const;
  // Its peer reads too little of what it is sent: nothing is to be begun that adds to it. written() may change that.
  bool isFull() const;
  // Runs `action` once that is so: now, or in written().
  void whenIdle(std::function<void()> action);

 private:
  enum class Place { none, waiting, underWay };

  Place takePlace(const grpc::ByteBuffer& message) ZKS_REQUIRES(mutex_);
  bool send(Place place, const grpc::ByteBuffer& message);
  bool start(const grpc::ByteBuffer& message);

  const StartWrite startWrite_;
  mutable parallel::threads::Mutex mutex_;
  parallel::threads::ConditionVariable room_;
  std::deque<grpc::ByteBuffer> waiting_ ZKS_GUARDED_BY(mutex_);
  std::size_t waitingBytes_ ZKS_GUARDED_BY(mutex_) = 0;
  bool writing_ ZKS_GUARDED_BY(mutex_) = false;
  bool brokenOff_ ZKS_GUARDED_BY(mutex_) = false;
  std::vector<std::function<void()>> whenIdle_ ZKS_GUARDED_BY(mutex_);
};

}  // namespace agent::spf::grpc_transport::internal
