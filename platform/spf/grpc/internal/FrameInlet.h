// The incoming bytes of one transfer: filled by the thread that serves the queue, read by one other.
#pragma once

#include <grpcpp/support/slice.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/spf/core/internal/ByteInlet.h"

namespace agent::spf::grpc_transport::internal {

// What is read ahead is bounded: hasRoom() says when to fetch no more, and `roomAgain` is called when it may go on.
class FrameInlet : public core::internal::ByteInlet {
 public:
  // Bytes that wait unread at most, one frame more or less.
  static constexpr std::size_t kReadAheadBytes = std::size_t{2} << 20;

  struct Callbacks {
    std::function<void()> roomAgain;
    std::function<void()> abandoned;  // closed, or given up for its long pause, before the end came
  };

  // `what` names the transfer in error texts. A reader that has waited for `idleTimeout` gets Timeout; zero: it waits
  // for ever.
  FrameInlet(std::string what, Callbacks callbacks, std::chrono::milliseconds idleTimeout);

  void announce(std::optional<long> size);
  // False when there are more bytes than announced: the transfer has then failed.
  bool push(std::vector<grpc::Slice> slices, std::size_t nbytes);
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
  void failLocked(std::exception_ptr error);
  void waitForFrame(std::unique_lock<std::mutex>& lock);
  bool takeFrame();
  bool hasRoomLocked() const noexcept { return closed_ || waitingBytes_ < kReadAheadBytes; }

  const std::string what_;
  const Callbacks callbacks_;
  const std::chrono::milliseconds idleTimeout_;

  // The reader's own.
  std::vector<grpc::Slice> current_;
  std::size_t nextSlice_ = 0;

  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  struct Frame {
    std::vector<grpc::Slice> slices;
    std::size_t nbytes;
  };
  std::deque<Frame> frames_;  // guarded by mutex_, as all below
  std::size_t waitingBytes_ = 0;
  long received_ = 0;
  long given_ = 0;  // bytes that next() has handed out
  std::optional<long> announced_;
  bool ended_ = false;
  bool closed_ = false;
  std::exception_ptr failure_;
};

}  // namespace agent::spf::grpc_transport::internal
