#include "platform/spf/grpc/internal/wire/Frame.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "platform/protobufencoding/parseQuietly.h"
#include "platform/spf/grpc/internal/wire/SliceCursor.h"

namespace agent::spf::grpc_transport::internal {

namespace {

// Tags: field number and wire type (0: number, 2: length and bytes) of the fields of Frame.
constexpr char kCallTag = 1 << 3 | 2;
constexpr char kReplyTag = 2 << 3 | 2;
constexpr char kDataTag = 3 << 3 | 2;
constexpr char kEndTag = 4 << 3 | 0;
constexpr char kErrorTag = 5 << 3 | 2;
constexpr char kErrorPartTag = 6 << 3 | 2;
constexpr char kNoticeTag = 7 << 3 | 2;

// Data up to this size is copied into the slice of its frame: less work than a slice of its own.
constexpr std::size_t kCopyBytes = 1024;

void appendVarint(std::string& to, std::uint64_t value) {
  for (; value >= 0x80U; value >>= 7U)
    to.push_back(static_cast<char>(value | 0x80U));
  to.push_back(static_cast<char>(value));
}

template <class Message>
std::string encodeMessageField(char tag, const Message& message) {
  std::string bytes(1, tag);
  appendVarint(bytes, message.ByteSizeLong());
  bytes += message.SerializeAsString();
  return bytes;
}

std::string beforeData(const FrameEnvelope& envelope, std::size_t nbytes) {
  std::string bytes = envelope.heads;
  if (nbytes > 0) {
    bytes.push_back(kDataTag);
    appendVarint(bytes, nbytes);
  }
  return bytes;
}

std::string afterData(const FrameEnvelope& envelope) {
  return (envelope.end ? std::string{kEndTag, 1} : std::string()) + envelope.error;
}

template <class Message>
void mergeHead(SliceCursor bytes, std::optional<Message>& into, const char* what) {
  Message head;
  if (!parallel::protobufencoding::parseQuietly(head, bytes.readBytes(bytes.remaining())))
    SliceCursor::malformed(what);
  if (into)
    into->MergeFrom(head);
  else
    into = std::move(head);
}

void mergeError(SliceCursor bytes, std::optional<ReceivedError>& into) {
  if (!into)
    into.emplace();
  decodeError(bytes, *into);
}

class Decoder {
 public:
  explicit Decoder(const std::vector<grpc::Slice>& slices) : cursor_(slices) {}

  Frame decode() {
    while (cursor_.remaining() > 0)
      decodeField(cursor_.readTag());
    return std::move(frame_);
  }

 private:
  SliceCursor takeMessage() { return cursor_.takeMessage(cursor_.readLength()); }

  SliceCursor takeHead() {
    SliceCursor head = takeMessage();
    headBytes_ += head.remaining();
    if (headBytes_ > kMaxHeadBytes)
      SliceCursor::malformed("its head is longer than any");
    return head;
  }

  std::string takeNotice() {
    SliceCursor notice = takeMessage();
    if (notice.remaining() > kMaxNoticeBytes)
      SliceCursor::malformed("its notice is longer than any");
    return notice.readBytes(notice.remaining());
  }

  void decodeField(std::uint32_t tag) {
    switch (tag) {
      case kCallTag:
        return mergeHead(takeHead(), frame_.call, "its call head cannot be read");
      case kReplyTag:
        return mergeHead(takeHead(), frame_.reply, "its reply head cannot be read");
      case kDataTag:
        frame_.dataBytes = cursor_.readLength();
        frame_.data = cursor_.shareBytes(frame_.dataBytes);
        return;
      case kEndTag:
        frame_.end = cursor_.readVarint() != 0;
        return;
      case kErrorTag:
        return mergeError(takeMessage(), frame_.error);
      case kErrorPartTag:
        return mergeError(takeMessage(), frame_.errorPart);
      case kNoticeTag:
        frame_.notice = takeNotice();
        return;
      default:
        cursor_.skipField(tag);
    }
  }

  SliceCursor cursor_;
  Frame frame_;
  std::size_t headBytes_ = 0;
};

}  // namespace

void prepareFrames() {
  v1::CallHead::descriptor();
  v1::ReplyHead::descriptor();
}

std::string encodeCallHead(const v1::CallHead& head) {
  return encodeMessageField(kCallTag, head);
}
std::string encodeReplyHead(const v1::ReplyHead& head) {
  return encodeMessageField(kReplyTag, head);
}
std::string encodeError(const v1::ErrorChain& error) {
  return encodeMessageField(kErrorTag, error);
}
std::string encodeErrorPart(const v1::ErrorChain& part) {
  return encodeMessageField(kErrorPartTag, part);
}
std::string encodeNotice(std::string_view text) {
  std::string bytes(1, kNoticeTag);
  appendVarint(bytes, text.size());
  return bytes.append(text);
}

grpc::ByteBuffer encodeSmallFrame(const FrameEnvelope& envelope, const char* data, std::size_t nbytes) {
  const std::string before = beforeData(envelope, nbytes);
  const std::string after = afterData(envelope);
  grpc::Slice slice(before.size() + nbytes + after.size());
  auto* to = const_cast<std::uint8_t*>(slice.begin());  // fresh memory of this slice alone
  to = std::copy(before.begin(), before.end(), to);
  to = std::copy_n(data, nbytes, to);
  std::copy(after.begin(), after.end(), to);
  return grpc::ByteBuffer(&slice, 1);
}

grpc::ByteBuffer encodeFrame(const FrameEnvelope& envelope, const grpc::Slice& data) {
  if (data.size() <= kCopyBytes)
    return encodeSmallFrame(envelope, reinterpret_cast<const char*>(data.begin()), data.size());
  const std::string after = afterData(envelope);
  const grpc::Slice slices[] = {grpc::Slice(beforeData(envelope, data.size())), data, grpc::Slice(after)};
  return grpc::ByteBuffer(slices, after.empty() ? 2 : 3);
}

Frame decodeFrame(const grpc::ByteBuffer& message) {
  std::vector<grpc::Slice> slices;
  if (!message.Dump(&slices).ok())
    SliceCursor::malformed("its bytes cannot be read");
  Frame frame = Decoder(slices).decode();
  frame.heldBytes = message.Length() + slices.size() * sizeof(grpc::Slice);
  return frame;
}

}  // namespace agent::spf::grpc_transport::internal
