// Turns the bytes of one transfer into frames of a stream.
#pragma once

#include <grpcpp/support/slice.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/spf/core/internal/ServedCall.h"
#include "platform/spf/grpc/internal/wire/Frame.h"
#include "platform/spf/grpc/internal/wire/FrameSender.h"
#include "platform/spf/grpc/internal/wire/SendBuffers.h"

namespace agent::spf::grpc_transport::internal {

// Ownership: borrows the sender. Errors: Terminated with the text given when the stream is broken off.
class FrameOutlet : public core::internal::ReplyOutlet {
 public:
  // Gathered bytes up to here are copied into their frame and the buffer is free again at once.
  static constexpr std::size_t kCopyBytes = std::size_t{8} << 10;

  struct Options {
    std::function<std::string(std::optional<long> size)> head;  // encodes the head, when the first frame is made
    std::function<void()> beforeEnd;  // runs once, before the last frame is sent; may be empty
    std::function<std::string()> brokenOffText;
    bool peerTakesNotices = false;
  };

  FrameOutlet(FrameSender& sender, std::shared_ptr<SendBuffers> buffers, Options options);
  ~FrameOutlet() override;

  void setSize(long size) override { size_ = size; }
  void notify(std::string_view text) override;
  std::span<char> room() override;
  void sendGathered(std::size_t nbytes) override;
  void sendBorrowed(std::span<const char> bytes) override;
  void finish(std::size_t nbytes) override;
  // Ends the transfer with an error, which may be in parts, whatever was sent before.
  void finishWithError(const std::vector<v1::ErrorChain>& parts);

 private:
  void send(const FrameEnvelope& envelope, std::size_t nbytes);
  std::string takeHead();
  void tellEnd();
  [[noreturn]] void throwBrokenOff() const;

  FrameSender& sender_;
  std::shared_ptr<SendBuffers> buffers_;
  Options options_;
  std::optional<long> size_;
  bool headSent_ = false;
  SendBuffers::Buffer buffer_;
};

}  // namespace agent::spf::grpc_transport::internal
