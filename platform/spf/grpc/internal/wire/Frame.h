// A Frame of transport.proto, encoded and decoded by hand so that bulk bytes stay the slices they are.
#pragma once

#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/slice.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/spf/grpc/internal/wire/errorMessage.h"
#include "platform/spf/grpc/transport.pb.h"

namespace agent::spf::grpc_transport::internal {

// The version that this code speaks.
inline constexpr std::uint32_t kProtocolVersion = 1;
// The one method of the wire.
inline constexpr const char* kConverseMethod = "/agent.spf.v1.Transport/Converse";
// Bulk bytes per frame, sent. A receiver takes frames up to kMaxFrameBytes, everything in them counted.
inline constexpr std::size_t kFrameDataBytes = std::size_t{1} << 20;
inline constexpr std::size_t kMaxFrameBytes = std::size_t{16} << 20;
// Bytes of heads in a frame: a head is small, and in memory larger than on the wire.
inline constexpr std::size_t kMaxHeadBytes = std::size_t{64} << 10;
// Of a notice, received; ServerCall::kMostNoticeBytes are sent.
inline constexpr std::size_t kMaxNoticeBytes = std::size_t{64} << 10;

struct Frame {
  std::optional<v1::CallHead> call;
  std::optional<v1::ReplyHead> reply;
  std::vector<grpc::Slice> data;  // the pieces of the one data field, in order; none of them empty
  std::size_t dataBytes = 0;
  // What the data keeps in memory: its slices share that of the whole message, whatever else is in it.
  std::size_t heldBytes = 0;
  bool end = false;
  std::optional<ReceivedError> error;
  std::optional<ReceivedError> errorPart;
  std::optional<std::string> notice;
};

// The parts of a frame around its data.
struct FrameEnvelope {
  std::string heads;  // encoded fields before the data
  bool end = false;
  std::string error;  // the encoded error field, or that of a part, or nothing
};

std::string encodeCallHead(const v1::CallHead& head);
std::string encodeReplyHead(const v1::ReplyHead& head);
std::string encodeError(const v1::ErrorChain& error);
std::string encodeErrorPart(const v1::ErrorChain& part);
std::string encodeNotice(std::string_view text);

// Has protobuf make its descriptions of the heads, which it otherwise does at the first frame. It does not survive a lack
// of memory there: call this before there can be one.
void prepareFrames();

// One message. The data slice is shared, not copied, unless it is so small that a copy costs less.
grpc::ByteBuffer encodeFrame(const FrameEnvelope& envelope, const grpc::Slice& data);
// As above for few bytes, copied together with the rest into one slice.
grpc::ByteBuffer encodeSmallFrame(const FrameEnvelope& envelope, const char* data, std::size_t nbytes);

// Takes what the generated parser would take, to the same values, but for heads that are too long; unknown fields are
// skipped. Takes little more memory than the message has, whatever is in it.
// Throws FrameworkError that says what is wrong with the bytes.
Frame decodeFrame(const grpc::ByteBuffer& message);

}  // namespace agent::spf::grpc_transport::internal
