#include "platform/spf/grpc/internal/FrameSender.h"

#include <utility>

namespace agent::spf::grpc_transport::internal {

bool FrameSender::start(std::unique_lock<std::mutex>& lock, const grpc::ByteBuffer& message) {
  writing_ = true;
  lock.unlock();
  if (startWrite_(message))
    return true;
  written(false);
  return false;
}

bool FrameSender::enqueueLocked(std::unique_lock<std::mutex>& lock, const grpc::ByteBuffer& message) {
  if (broken_)
    return false;
  if (!writing_)
    return start(lock, message);
  waiting_.push_back(message);
  return true;
}

bool FrameSender::enqueue(const grpc::ByteBuffer& message) {
  std::unique_lock lock(mutex_);
  return enqueueLocked(lock, message);
}

bool FrameSender::enqueueBulk(const grpc::ByteBuffer& message) {
  std::unique_lock lock(mutex_);
  if (waiting_.size() >= kHighWater)
    room_.wait(lock, [this] { return broken_ || waiting_.size() <= kLowWater; });
  return enqueueLocked(lock, message);
}

void FrameSender::written(bool ok) {
  if (!ok)
    breakOff();
  std::unique_lock lock(mutex_);
  if (!waiting_.empty()) {
    const grpc::ByteBuffer next = waiting_.front();
    waiting_.pop_front();
    if (waiting_.size() == kLowWater)
      room_.notify_one();
    start(lock, next);
    return;
  }
  writing_ = false;
  const std::function<void()> action = std::exchange(whenIdle_, nullptr);
  lock.unlock();
  if (action)
    action();
}

void FrameSender::breakOff() {
  std::deque<grpc::ByteBuffer> dropped;  // ends after the lock: its slices may call back
  const std::lock_guard lock(mutex_);
  broken_ = true;
  dropped.swap(waiting_);
  room_.notify_all();
}

bool FrameSender::isBroken() const {
  const std::lock_guard lock(mutex_);
  return broken_;
}

void FrameSender::whenIdle(std::function<void()> action) {
  {
    const std::lock_guard lock(mutex_);
    if (writing_) {
      whenIdle_ = std::move(action);
      return;
    }
  }
  action();
}

}  // namespace agent::spf::grpc_transport::internal
