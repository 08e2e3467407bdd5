// The incoming bytes of one transfer: filled by the thread that serves the queue, read by one other.
#pragma once

#include <grpcpp/support/slice.h>

#include <chrono>
#include <deque>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/spf/core/internal/ByteInlet.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::grpc_transport::internal {

// What is read ahead is bounded: hasRoom() says when to fetch no more, and `roomAgain` is called when it may go on.
class FrameInlet : public core::internal::ByteInlet {
 public:
  // What the frames that wait unread may hold in memory, one frame more or less.
  static constexpr std::size_t kReadAheadBytes = std::size_t{2} << 20;
  // What a frame holds besides its message: its place here.
  static constexpr std::size_t kFrameBytes = 128;

  struct Callbacks {
    std::function<void()> roomAgain;
    std::function<void()> givenUp;  // closed, or failed for its long pause, before the end came
  };

  // `what` names the transfer in error texts. A reader that has waited for `idleTimeout` gets Timeout; zero: it waits
  // for ever.
  FrameInlet(std::string what, Callbacks callbacks, std::chrono::milliseconds idleTimeout);

  void announce(std::optional<long> size);
  // The data of a frame. False when there are more bytes than announced: the transfer has then failed.
  bool push(std::vector<grpc::Slice> slices, std::size_t nbytes, std::size_t heldBytes);
  void end();
  // Does nothing after an end or an earlier failure.
  void fail(std::exception_ptr error);
  bool hasRoom() const;
  // What the transfer failed with; null while it has not.
  std::exception_ptr failure() const;

  std::span<const char> next() override;
  std::optional<long> remaining() const noexcept override;
  void close() noexcept override;

 private:
  void failLocked(std::exception_ptr error) ZKS_REQUIRES(mutex_);
  bool waitForFrame();
  bool takeFrame();
  bool hasRoomLocked() const noexcept ZKS_REQUIRES(mutex_) { return closed_ || heldBytes_ < kReadAheadBytes; }

  const std::string what_;
  const Callbacks callbacks_;
  const std::chrono::milliseconds idleTimeout_;

  // The reader's own.
  std::vector<grpc::Slice> current_;
  std::size_t nextSlice_ = 0;

  struct Frame {
    std::vector<grpc::Slice> slices;
    std::size_t heldBytes;
  };
  mutable parallel::threads::Mutex mutex_;
  parallel::threads::ConditionVariable arrived_;
  std::deque<Frame> frames_ ZKS_GUARDED_BY(mutex_);
  std::size_t heldBytes_ ZKS_GUARDED_BY(mutex_) = 0;
  long received_ ZKS_GUARDED_BY(mutex_) = 0;
  long given_ ZKS_GUARDED_BY(mutex_) = 0;  // bytes that next() has handed out
  std::optional<long> announced_ ZKS_GUARDED_BY(mutex_);
  bool ended_ ZKS_GUARDED_BY(mutex_) = false;
  bool closed_ ZKS_GUARDED_BY(mutex_) = false;
  std::exception_ptr failure_ ZKS_GUARDED_BY(mutex_);
};

}  // namespace agent::spf::grpc_transport::internal
