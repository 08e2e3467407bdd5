#include "platform/spf/grpc/internal/wire/FrameInlet.h"

#include <gtest/gtest.h>

#include "platform/spf/grpc/internal/wire/Frame.h"
#include "platform/spf/grpc/testing/rawMessages.h"
#include "platform/spf/grpc/transport.pb.h"

namespace agent::spf::grpc_transport::internal {
namespace {

constexpr std::size_t kUnknownBytes = 60'000;

// A message with a few bytes of data, and many of a field that nobody knows.
grpc::ByteBuffer littleDataBesideMuch() {
  v1::Frame frame;
  frame.set_data("little");
  frame.GetReflection()->MutableUnknownFields(&frame)->AddLengthDelimited(1000, std::string(kUnknownBytes, 'x'));
  return testing::messageOf(frame.SerializeAsString(), 16'384);
}

// How many frames are taken until there is no more room.
std::size_t fill(FrameInlet& inlet, const grpc::ByteBuffer& message) {
  std::size_t count = 0;
  for (; inlet.hasRoom(); ++count) {
    Frame frame = decodeFrame(message);
    EXPECT_TRUE(inlet.push(std::move(frame.data), frame.dataBytes, frame.heldBytes));
  }
  return count;
}

TEST(FrameInlet, CountsWholeMessagesThatItsDataKeepsInMemory) {
  FrameInlet inlet("request", {}, std::chrono::milliseconds(0));
  EXPECT_LE(fill(inlet, littleDataBesideMuch()), FrameInlet::kReadAheadBytes / kUnknownBytes + 1);
}

TEST(FrameInlet, CountsWhatEachFrameCostsHoweverSmallItIs) {
  FrameInlet inlet("request", {}, std::chrono::milliseconds(0));
  v1::Frame frame;
  frame.set_data("x");
  EXPECT_LE(fill(inlet, testing::messageOf(frame.SerializeAsString())),
            FrameInlet::kReadAheadBytes / FrameInlet::kFrameBytes);
}

TEST(FrameInlet, HasRoomAgainWhenWhatWasHeldHasBeenRead) {
  int timesRoomAgain = 0;
  FrameInlet inlet("request", {[&] { ++timesRoomAgain; }, {}}, std::chrono::milliseconds(0));
  const std::size_t count = fill(inlet, littleDataBesideMuch());
  EXPECT_EQ(inlet.next().size(), 6U);
  EXPECT_EQ(timesRoomAgain, 1);
  EXPECT_TRUE(inlet.hasRoom());
  for (std::size_t i = 1; i < count; ++i)
    inlet.next();
  EXPECT_EQ(fill(inlet, littleDataBesideMuch()), count);
}

}  // namespace
}  // namespace agent::spf::grpc_transport::internal
