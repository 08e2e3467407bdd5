// Counts the gRPC operations under way on one stream, and ends the stream's gRPC objects as soon as the stream is to
// end and none is.
//
// As soon as, and not when the last owner of the stream lets go: gRPC may keep hold of unsent bytes until its call has
// gone, and the thread that lent them waits for exactly that while it owns the stream.
#pragma once

#include <cstddef>
#include <functional>
#include <utility>

#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

// Threads: any.
class OperationGate {
 public:
  // `dispose` ends the gRPC objects; it runs once, on the thread that closes or that reports the last operation.
  explicit OperationGate(std::function<void()> dispose) : dispose_(std::move(dispose)) {}

  // To be asked before each operation; false, and nothing may be started, once closed.
  bool begin() {
    const parallel::threads::MutexLock lock(mutex_);
    if (closed_)
      return false;
    ++underWay_;
    return true;
  }

  // The operation is over.
  void done() {
    parallel::threads::MutexLock lock(mutex_);
    --underWay_;
    const std::function<void()> dispose = takeDisposal();
    lock.unlock();
    if (dispose)
      dispose();
  }

  void close() {
    parallel::threads::MutexLock lock(mutex_);
    closed_ = true;
    const std::function<void()> dispose = takeDisposal();
    lock.unlock();
    if (dispose)
      dispose();
  }

 private:
  // Empty when it is not due, or not any more.
  std::function<void()> takeDisposal() ZKS_REQUIRES(mutex_) {
    return closed_ && underWay_ == 0 ? std::exchange(dispose_, nullptr) : nullptr;
  }

  parallel::threads::Mutex mutex_;
  std::function<void()> dispose_ ZKS_GUARDED_BY(mutex_);
  std::size_t underWay_ ZKS_GUARDED_BY(mutex_) = 0;
  bool closed_ ZKS_GUARDED_BY(mutex_) = false;
};

}  // namespace agent::spf::grpc_transport::internal
