#include "platform/spf/grpc/internal/wire/FrameOutlet.h"

#include <algorithm>
#include <utility>

#include "platform/spf/core/errors.h"
#include "platform/spf/grpc/internal/wire/BorrowedBytes.h"

namespace agent::spf::grpc_transport::internal {

FrameOutlet::FrameOutlet(FrameSender& sender, std::shared_ptr<SendBuffers> buffers, Options options)
    : sender_(sender), buffers_(std::move(buffers)), options_(std::move(options)) {}

FrameOutlet::~FrameOutlet() {
  if (buffer_ != nullptr)
    buffers_->giveBack(std::move(buffer_));
}

void FrameOutlet::throwBrokenOff() const {
  throw Terminated(options_.brokenOffText());
}

std::string FrameOutlet::takeHead() {
  if (std::exchange(headSent_, true))
    return {};
  return options_.head(size_);
}

// An error may end a transfer that failed at its end.
void FrameOutlet::tellEnd() {
  if (const auto beforeEnd = std::exchange(options_.beforeEnd, nullptr))
    beforeEnd();
}

// One more would only wait behind those that its peer has not taken yet.
void FrameOutlet::notify(std::string_view text) {
  if (!headSent_ && options_.peerTakesNotices && !sender_.isFull())
    sender_.enqueue(encodeSmallFrame({encodeNotice(text), false, {}}, nullptr, 0));
}

std::span<char> FrameOutlet::room() {
  if (buffer_ == nullptr)
    buffer_ = buffers_->acquire();
  if (buffer_ == nullptr)
    throwBrokenOff();
  return {buffer_.get(), SendBuffers::kBufferBytes};
}

void FrameOutlet::send(const FrameEnvelope& envelope, std::size_t nbytes) {
  const grpc::ByteBuffer frame = nbytes <= kCopyBytes
                                     ? encodeSmallFrame(envelope, buffer_.get(), nbytes)
                                     : encodeFrame(envelope, SendBuffers::lend(buffers_, std::move(buffer_), nbytes));
  if (!sender_.enqueueBulk(frame))
    throwBrokenOff();
}

void FrameOutlet::sendGathered(std::size_t nbytes) {
  if (nbytes == 0 && headSent_)
    return;
  send({takeHead(), false, {}}, nbytes);
}

void FrameOutlet::sendBorrowed(std::span<const char> bytes) {
  BorrowedBytes borrowed(bytes);
  for (std::size_t offset = 0; offset < bytes.size(); offset += kFrameDataBytes) {
    const std::size_t part = std::min(kFrameDataBytes, bytes.size() - offset);
    if (!sender_.enqueueBulk(encodeFrame({takeHead(), false, {}}, borrowed.lend(offset, part))))
      throwBrokenOff();
  }
  borrowed.waitForRelease();
  if (sender_.isBrokenOff())
    throwBrokenOff();
}

void FrameOutlet::finish(std::size_t nbytes) {
  const FrameEnvelope envelope{takeHead(), true, {}};
  tellEnd();
  send(envelope, nbytes);
}

void FrameOutlet::finishWithError(const std::vector<v1::ErrorChain>& parts) {
  std::vector<grpc::ByteBuffer> frames;  // all of them first: an error for which the memory lacks is not begun
  for (std::size_t i = 0; i + 1 < parts.size(); ++i)
    frames.push_back(encodeSmallFrame({{}, false, encodeErrorPart(parts[i])}, nullptr, 0));
  const grpc::ByteBuffer last = encodeSmallFrame({{}, false, encodeError(parts.back())}, nullptr, 0);
  for (const grpc::ByteBuffer& frame : frames)
    sender_.enqueueBulk(frame);
  tellEnd();
  sender_.enqueue(last);
}

}  // namespace agent::spf::grpc_transport::internal
