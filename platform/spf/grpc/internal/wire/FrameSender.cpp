#include "platform/spf/grpc/internal/wire/FrameSender.h"

#include <utility>

namespace agent::spf::grpc_transport::internal {

using parallel::threads::MutexLock;

FrameSender::Place FrameSender::takePlace(const grpc::ByteBuffer& message) {
  if (brokenOff_)
    return Place::none;
  if (!std::exchange(writing_, true))
    return Place::underWay;
  waiting_.push_back(message);
  waitingBytes_ += message.Length();
  return Place::waiting;
}

bool FrameSender::send(Place place, const grpc::ByteBuffer& message) {
  return place == Place::underWay ? start(message) : place == Place::waiting;
}

bool FrameSender::start(const grpc::ByteBuffer& message) {
  if (startWrite_(message))
    return true;
  written(false);
  return false;
}

bool FrameSender::enqueue(const grpc::ByteBuffer& message) {
  MutexLock lock(mutex_);
  const Place place = takePlace(message);
  lock.unlock();
  return send(place, message);
}

bool FrameSender::enqueueBulk(const grpc::ByteBuffer& message) {
  MutexLock lock(mutex_);
  if (waiting_.size() >= kHighWater)
    room_.wait(lock, [this]() ZKS_REQUIRES(mutex_) { return brokenOff_ || waiting_.size() <= kLowWater; });
  const Place place = takePlace(message);
  lock.unlock();
  return send(place, message);
}

void FrameSender::written(bool ok) {
  if (!ok)
    breakOff();
  std::vector<std::function<void()>> actions;
  {
    MutexLock lock(mutex_);
    if (!waiting_.empty()) {
      const grpc::ByteBuffer next = waiting_.front();
      waiting_.pop_front();
      waitingBytes_ -= next.Length();
      if (waiting_.size() == kLowWater)
        room_.notifyOne();
      lock.unlock();
      start(next);
      return;
    }
    writing_ = false;
    actions.swap(whenIdle_);
  }
  for (const auto& action : actions)
    action();
}

void FrameSender::breakOff() {
  std::deque<grpc::ByteBuffer> dropped;  // ends after the lock: its slices may call back
  const MutexLock lock(mutex_);
  brokenOff_ = true;
  dropped.swap(waiting_);
  waitingBytes_ = 0;
  room_.notifyAll();
}

bool FrameSender::isBrokenOff() const {
  const MutexLock lock(mutex_);
  return brokenOff_;
}

bool FrameSender::isIdle() const {
  const MutexLock lock(mutex_);
  return !writing_;
}

bool FrameSender::isFull() const {
  const MutexLock lock(mutex_);
  return waiting_.size() >= kHighWater || waitingBytes_ >= kFullBytes;
}

void FrameSender::whenIdle(std::function<void()> action) {
  {
    const MutexLock lock(mutex_);
    if (writing_) {
      whenIdle_.push_back(std::move(action));
      return;
    }
  }
  action();
}

}  // namespace agent::spf::grpc_transport::internal
