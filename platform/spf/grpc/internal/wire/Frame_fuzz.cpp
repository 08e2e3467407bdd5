// Fuzz target: any bytes, in slices of any length, are a frame for us when they are one for the generated parser, and
// the same one; and what we make of a frame's parts is read as that frame again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/spf/core/errors.h"
#include "platform/spf/grpc/internal/wire/Frame.h"
#include "platform/spf/grpc/testing/errorReference.h"
#include "platform/spf/grpc/testing/rawMessages.h"
#include "tests/fuzzing/quietProtobuf.h"

namespace {

using namespace agent::spf::grpc_transport::internal;
using agent::spf::testing::messageOf;
namespace v1 = agent::spf::v1;

void require(bool condition) {
  if (!condition)
    std::abort();
}

std::string dataOf(const Frame& frame) {
  std::string bytes;
  for (const grpc::Slice& slice : frame.data) {
    require(slice.size() > 0);
    bytes.append(slice.begin(), slice.end());
  }
  require(bytes.size() == frame.dataBytes);
  return bytes;
}

template <class Message>
void requireSame(const std::optional<Message>& found, bool present, const Message& expected) {
  require(found.has_value() == present);
  require(!present || found->SerializeAsString() == expected.SerializeAsString());
}

void requireSameError(const std::optional<ReceivedError>& found, bool present, const v1::ErrorChain& expected) {
  require(found.has_value() == present);
  require(!present || agent::spf::testing::saysTheSame(*found, expected));
}

void requireSame(const Frame& found, const v1::Frame& expected) {
  requireSame(found.call, expected.has_call(), expected.call());
  requireSame(found.reply, expected.has_reply(), expected.reply());
  requireSameError(found.error, expected.has_error(), expected.error());
  requireSameError(found.errorPart, expected.has_error_part(), expected.error_part());
  require(found.notice.value_or("") == expected.notice());
  require(dataOf(found) == expected.data());
  require(found.end == expected.end());
}

grpc::ByteBuffer written(const v1::Frame& frame) {
  FrameEnvelope envelope;
  if (frame.has_call())
    envelope.heads += encodeCallHead(frame.call());
  if (frame.has_reply())
    envelope.heads += encodeReplyHead(frame.reply());
  if (!frame.notice().empty())
    envelope.heads += encodeNotice(frame.notice());
  envelope.end = frame.end();
  if (frame.has_error())
    envelope.error = encodeError(frame.error());
  if (frame.has_error_part())
    envelope.error += encodeErrorPart(frame.error_part());
  return encodeFrame(envelope, grpc::Slice(frame.data()));
}

}  // namespace

// A byte that says how long the slices are, then the frame.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t nbytes) {
  quietProtobuf();
  if (nbytes == 0 || nbytes > kMaxHeadBytes)  // the generated parser knows no such bound
    return 0;
  const std::string bytes(reinterpret_cast<const char*>(data + 1), nbytes - 1);
  v1::Frame expected;
  const bool parses = expected.ParseFromString(bytes);
  try {
    const Frame frame = decodeFrame(messageOf(bytes, data[0] + std::size_t{1}));
    require(parses);
    requireSame(frame, expected);
    requireSame(decodeFrame(written(expected)), expected);
  } catch (const agent::spf::FrameworkError&) {
    require(!parses);
  }
  return 0;
}
