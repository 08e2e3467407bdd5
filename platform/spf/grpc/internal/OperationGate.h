// Counts the gRPC operations under way on one stream, and ends the stream's gRPC objects as soon as the stream is to
// end and none is.
//
// As soon as, and not when the last owner of the stream lets go: gRPC may keep hold of unsent bytes until its call has
// gone, and the thread that lent them waits for exactly that while it owns the stream.
#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <utility>

namespace agent::spf::grpc_transport::internal {

// Threads: any.
class OperationGate {
 public:
  // `dispose` ends the gRPC objects; it runs once, on the thread that closes or that reports the last operation.
  explicit OperationGate(std::function<void()> dispose) : dispose_(std::move(dispose)) {}

  // To be asked before each operation; false, and nothing may be started, once closed.
  bool begin() {
    const std::lock_guard lock(mutex_);
    if (closed_)
      return false;
    ++underWay_;
    return true;
  }

  // The operation is over.
  void done() {
    std::unique_lock lock(mutex_);
    --underWay_;
    disposeIfDue(lock);
  }

  void close() {
    std::unique_lock lock(mutex_);
    closed_ = true;
    disposeIfDue(lock);
  }

 private:
  void disposeIfDue(std::unique_lock<std::mutex>& lock) {
    if (!closed_ || underWay_ > 0)
      return;
    const std::function<void()> dispose = std::exchange(dispose_, nullptr);
    lock.unlock();
    if (dispose)
      dispose();
  }

  std::mutex mutex_;
  std::function<void()> dispose_;  // guarded by mutex_, as all below
  std::size_t underWay_ = 0;
  bool closed_ = false;
};

}  // namespace agent::spf::grpc_transport::internal
