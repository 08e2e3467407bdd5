#include "platform/spf/grpc/internal/wire/FrameInlet.h"

#include <utility>

#include "platform/interrupt/waitInterruptibly.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/grpc/internal/endpoint/grpcTime.h"

namespace agent::spf::grpc_transport::internal {

using parallel::threads::MutexLock;

FrameInlet::FrameInlet(std::string what, Callbacks callbacks, std::chrono::milliseconds idleTimeout)
    : what_(std::move(what)), callbacks_(std::move(callbacks)), idleTimeout_(idleTimeout) {}

void FrameInlet::announce(std::optional<long> size) {
  const MutexLock lock(mutex_);
  announced_ = size;
}

bool FrameInlet::push(std::vector<grpc::Slice> slices, std::size_t nbytes, std::size_t heldBytes) {
  const MutexLock lock(mutex_);
  received_ += static_cast<long>(nbytes);
  if (announced_ && received_ > *announced_) {
    failLocked(
        std::make_exception_ptr(FrameworkError("The " + what_ + " was announced with " + std::to_string(*announced_) +
                                               " bytes, but " + std::to_string(received_) + " or more arrived.")));
    return false;
  }
  if (closed_)
    return true;
  frames_.push_back({std::move(slices), heldBytes + kFrameBytes});
  heldBytes_ += frames_.back().heldBytes;
  arrived_.notifyOne();
  return true;
}

void FrameInlet::end() {
  const MutexLock lock(mutex_);
  if (announced_ && received_ < *announced_)
    return failLocked(
        std::make_exception_ptr(FrameworkError("The " + what_ + " was announced with " + std::to_string(*announced_) +
                                               " bytes, but only " + std::to_string(received_) + " arrived.")));
  ended_ = true;
  arrived_.notifyOne();
}

void FrameInlet::fail(std::exception_ptr error) {
  const MutexLock lock(mutex_);
  failLocked(std::move(error));
}

void FrameInlet::failLocked(std::exception_ptr error) {
  if (ended_ || failure_ != nullptr)
    return;
  failure_ = std::move(error);
  arrived_.notifyOne();
}

bool FrameInlet::hasRoom() const {
  const MutexLock lock(mutex_);
  return hasRoomLocked();
}

std::exception_ptr FrameInlet::failure() const {
  const MutexLock lock(mutex_);
  return failure_;
}

// Returns when there is a frame, or will be none. False when none came for too long: the transfer has then failed.
bool FrameInlet::waitForFrame() {
  using Clock = std::chrono::steady_clock;
  const auto deadline = idleTimeout_ == Clock::duration::zero() ? Clock::time_point::max()
                                                                : Clock::now() + std::min(idleTimeout_, kLongestTime);
  MutexLock lock(mutex_);
  const auto arrived = [this]() ZKS_REQUIRES(mutex_) { return !frames_.empty() || ended_ || failure_ != nullptr; };
  if (waitInterruptibly(arrived_, lock, arrived, deadline))
    return true;
  failLocked(std::make_exception_ptr(
      Timeout("The " + what_ + " has paused for more than " + std::to_string(idleTimeout_.count()) + " ms.")));
  return false;
}

// Makes the next frame the current one; false at the end.
bool FrameInlet::takeFrame() {
  if (!waitForFrame() && callbacks_.givenUp)
    callbacks_.givenUp();
  MutexLock lock(mutex_);
  if (frames_.empty()) {
    if (failure_ != nullptr)
      std::rethrow_exception(failure_);
    return false;
  }
  Frame frame = std::move(frames_.front());
  frames_.pop_front();
  const bool hadRoom = hasRoomLocked();
  heldBytes_ -= frame.heldBytes;
  const bool roomAgain = !hadRoom && hasRoomLocked();
  lock.unlock();
  current_ = std::move(frame.slices);
  nextSlice_ = 0;
  if (roomAgain)
    callbacks_.roomAgain();
  return true;
}

std::span<const char> FrameInlet::next() {
  if (nextSlice_ > 0)
    current_[nextSlice_ - 1] = grpc::Slice();  // has been read: gRPC may use the memory again
  while (nextSlice_ == current_.size())
    if (!takeFrame())
      return {};
  const grpc::Slice& slice = current_[nextSlice_++];
  const MutexLock lock(mutex_);
  given_ += static_cast<long>(slice.size());
  return {reinterpret_cast<const char*>(slice.begin()), slice.size()};
}

std::optional<long> FrameInlet::remaining() const noexcept {
  const MutexLock lock(mutex_);
  if (!announced_)
    return std::nullopt;
  return *announced_ - given_;
}

void FrameInlet::close() noexcept {
  std::deque<Frame> dropped;
  bool wasOpen = false;
  bool whole = false;
  {
    const MutexLock lock(mutex_);
    wasOpen = !std::exchange(closed_, true);
    whole = ended_ || failure_ != nullptr;
    dropped.swap(frames_);
    heldBytes_ = 0;
  }
  if (wasOpen && !whole && callbacks_.givenUp)
    callbacks_.givenUp();
}

}  // namespace agent::spf::grpc_transport::internal
