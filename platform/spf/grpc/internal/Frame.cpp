#include "platform/spf/grpc/internal/Frame.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "platform/spf/core/errors.h"
#include "platform/spf/grpc/internal/SliceCursor.h"

namespace agent::spf::grpc_transport::internal {

namespace {

// Tags: field number and wire type (0: number, 2: length and bytes) of the fields of Frame.
constexpr char kCallTag = 1 << 3 | 2;
constexpr char kReplyTag = 2 << 3 | 2;
constexpr char kDataTag = 3 << 3 | 2;
constexpr char kEndTag = 4 << 3 | 0;
constexpr char kErrorTag = 5 << 3 | 2;
constexpr char kErrorPartTag = 6 << 3 | 2;

// Data up to this size is copied into the slice of its frame: less work than a slice of its own.
constexpr std::size_t kCopyBytes = 1024;

[[noreturn]] void malformed(const char* why) {
  throw FrameworkError(std::string("malformed frame: ") + why);
}

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
void mergeMessage(SliceCursor& cursor, std::optional<Message>& into, const char* what) {
  if (!into)
    into.emplace();
  if (!into->MergeFromString(cursor.readBytes(cursor.readLength())))
    malformed(what);
}

void decodeField(SliceCursor& cursor, std::uint32_t tag, Frame& frame) {
  switch (tag) {
    case kCallTag:
      return mergeMessage(cursor, frame.call, "its call head cannot be read");
    case kReplyTag:
      return mergeMessage(cursor, frame.reply, "its reply head cannot be read");
    case kDataTag:
      frame.dataBytes = cursor.readLength();
      frame.data = cursor.shareBytes(frame.dataBytes);
      return;
    case kEndTag:
      frame.end = cursor.readVarint() != 0;
      return;
    case kErrorTag:
      return mergeMessage(cursor, frame.error, "its error cannot be read");
    case kErrorPartTag:
      return mergeMessage(cursor, frame.errorPart, "its part of an error cannot be read");
    default:
      cursor.skipField(tag);
  }
}

}  // namespace

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
    malformed("its bytes cannot be read");
  Frame frame;
  SliceCursor cursor(slices);
  while (cursor.remaining() > 0)
    decodeField(cursor, cursor.readTag(), frame);
  return frame;
}

}  // namespace agent::spf::grpc_transport::internal
