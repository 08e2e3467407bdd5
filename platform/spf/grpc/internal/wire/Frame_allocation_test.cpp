// What frames ask of the memory, and what becomes of them when they do not get it.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/spf/core/errors.h"
#include "platform/spf/grpc/internal/wire/Frame.h"
#include "platform/spf/grpc/internal/wire/errorMessage.h"
#include "tests/allocation/allocationHooks.h"

namespace agent::spf::grpc_transport::internal {
namespace {

using allocation_testing::failEachAllocation;
using allocation_testing::requestedBytes;

const std::string kLong = " with a text that is too long to be kept inside a string object";

grpc::ByteBuffer messageOf(const std::string& bytes) {
  std::vector<grpc::Slice> slices;
  constexpr std::size_t kSliceBytes = 8192;  // as gRPC reads from a socket
  for (std::size_t offset = 0; offset < bytes.size(); offset += kSliceBytes)
    slices.emplace_back(bytes.data() + offset, std::min(kSliceBytes, bytes.size() - offset));
  return {slices.data(), slices.size()};
}

// A field of length-delimited content.
std::string field(int number, const std::string& content) {
  std::string bytes(1, static_cast<char>(number << 3 | 2));
  std::size_t length = content.size();
  for (; length >= 0x80; length >>= 7U)
    bytes.push_back(static_cast<char>(length | 0x80U));
  bytes.push_back(static_cast<char>(length));
  return bytes + content;
}

// As many repetitions as fit into a frame of the largest size.
std::string repeated(const std::string& piece) {
  std::string bytes = piece;
  while (2 * bytes.size() + 20 <= kMaxFrameBytes)
    bytes += bytes;
  return bytes + bytes.substr(0, (kMaxFrameBytes - 20 - bytes.size()) / piece.size() * piece.size());
}

// Frames as large as may be, of which each few bytes ask for a place of their own in memory.
TEST(FrameAllocation, FramesTakeLittleMoreMemoryThanTheyHaveBytes) {
  const std::string levels[] = {std::string("\x0A\x00", 2), "\x0A\x02\x28\x01", "\x0A\x02\x08\x01",
                                "\x0A\x05\x12\x01"
                                "c\x28\x01"};
  std::vector<std::string> frames;
  for (const std::string& level : levels)
    for (const int error : {5, 6})
      frames.push_back(field(error, repeated(level)));
  const std::string unknown = repeated(std::string("\x78\x00", 2));
  for (const int number : {1, 2, 5, 6})
    frames.push_back(field(number, unknown));
  frames.push_back(field(5, field(1, unknown)));                               // unknown fields in a level
  frames.push_back(field(5, field(1, repeated(std::string("\x22\x00", 2)))));  // a text over and over
  frames.push_back(field(1, field(6, repeated("\x01"))));                      // capabilities
  frames.push_back(repeated("\x2A\x02" + std::string("\x0A\x00", 2)));         // errors over and over
  frames.push_back(unknown);
  for (std::size_t i = 0; i < frames.size(); ++i) {
    const grpc::ByteBuffer message = messageOf(frames[i]);
    frames[i] = {};
    const std::size_t before = requestedBytes();
    try {
      const Frame frame = decodeFrame(message);
      ErrorParts parts;
      if (frame.errorPart)
        parts.add(*frame.errorPart);
      if (frame.error)
        static_cast<void>(parts.finish(*frame.error));
    } catch (const FrameworkError&) {  // more than a peer may send; but it had to be read for that
    }
    EXPECT_LE(requestedBytes() - before, kMaxFrameBytes) << "frame " << i;
  }
}

TEST(FrameAllocation, TextOfAnErrorIsCopiedOnce) {
  const grpc::ByteBuffer message = messageOf(field(5, field(1, field(4, repeated("x")))));
  const std::size_t before = requestedBytes();
  EXPECT_GT(decodeFrame(message).error->levels.at(0).text.size(), kMaxFrameBytes - 100);
  EXPECT_LE(requestedBytes() - before, kMaxFrameBytes + kMaxFrameBytes / 8);
}

FrameEnvelope exampleEnvelope() {
  v1::CallHead call;
  call.set_method("method" + kLong);
  v1::ReplyHead reply;
  reply.add_capabilities(v1::ERROR_PARTS);
  const core::ErrorChain chain{
      {core::ErrorLevel::Kind::identified, "component" + kLong, "name" + kLong, "text" + kLong},
      {core::ErrorLevel::Kind::standard, "", "", "inner" + kLong}};
  return {encodeCallHead(call) + encodeReplyHead(reply), true, encodeError(toMessage(chain))};
}

TEST(OutOfMemory, EncodingAFrameThrows) {
  EXPECT_GT(failEachAllocation([] { exampleEnvelope(); }), 20);
  const FrameEnvelope envelope = exampleEnvelope();
  const std::string data(5000, 'd');
  const grpc::Slice slice(data);
  EXPECT_GT(failEachAllocation([&] { encodeSmallFrame(envelope, data.data(), data.size()); }), 1);
  EXPECT_GT(failEachAllocation([&] { encodeFrame(envelope, slice); }), 1);
}

TEST(OutOfMemory, DecodingAFrameThrows) {
  prepareFrames();
  const std::string data(5000, 'd');
  const grpc::ByteBuffer message = encodeFrame(exampleEnvelope(), grpc::Slice(data));
  Frame frame;
  EXPECT_GT(
      failEachAllocation([&] { frame = decodeFrame(message); }, [&] { return !frame.call && frame.data.empty(); }), 8);
  EXPECT_EQ(frame.call->method(), "method" + kLong);
  EXPECT_EQ(frame.dataBytes, data.size());
  EXPECT_EQ(frame.error->levels.at(1).text, "inner" + kLong);
}

TEST(OutOfMemory, DecodingAMalformedFrameThrows) {
  const grpc::ByteBuffer message = messageOf("\x1A\x05x");
  const auto refuse = [&] {
    try {
      decodeFrame(message);
      ADD_FAILURE() << "the frame was accepted";
    } catch (const FrameworkError&) {
    }
  };
  EXPECT_GT(failEachAllocation(refuse), 1);
}

// Through the parts of an error and back.
TEST(OutOfMemory, TakingAnErrorApartAndPuttingItTogetherThrows) {
  const core::ErrorChain chain{{core::ErrorLevel::Kind::standard, "", "", std::string(2 * kErrorPartBytes, 'x')},
                               {core::ErrorLevel::Kind::identified, "component" + kLong, "name\xFF" + kLong, "text"}};
  core::ErrorChain back;
  const auto send = [&] {
    ErrorParts gathered;
    const std::vector<v1::ErrorChain> parts = toParts(chain);
    for (std::size_t i = 0; i + 1 < parts.size(); ++i)
      gathered.add(*decodeFrame(messageOf(encodeErrorPart(parts[i]))).errorPart);
    back = gathered.finish(*decodeFrame(messageOf(encodeError(parts.back()))).error);
  };
  EXPECT_GT(failEachAllocation(send, [&] { return back.empty(); }), 30);
  EXPECT_EQ(back.at(0), chain[0]);
}

}  // namespace
}  // namespace agent::spf::grpc_transport::internal
