// What is lent to gRPC, with each allocation failing: nothing stays lent, and no buffer is lost.
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>

#include "platform/spf/core/internal/OutputStreambuf.h"
#include "platform/spf/core/internal/testCalls.h"
#include "platform/spf/grpc/internal/wire/BorrowedBytes.h"
#include "platform/spf/grpc/internal/wire/FrameOutlet.h"
#include "platform/spf/grpc/internal/wire/FrameSender.h"
#include "platform/spf/grpc/internal/wire/SendBuffers.h"
#include "tests/allocation/allocationHooks.h"

namespace agent::spf::grpc_transport::internal {
namespace {

using allocation_testing::failEachAllocation;
using core::testing::patternOf;

TEST(OutOfMemory, BorrowedBytesThatCannotBeLentAreNotWaitedFor) {
  const std::string bytes = patternOf(100'000);
  const auto lend = [&] {
    BorrowedBytes borrowed(bytes);
    const grpc::Slice slice = borrowed.lend(0, bytes.size());
    EXPECT_EQ(slice.size(), bytes.size());
  };
  EXPECT_GT(failEachAllocation(lend), 0);
}

// Far more transfers than there are buffers, each of which uses all of them.
TEST(OutOfMemory, BuffersOfATransferThatFailsAreThereForTheNext) {
  const auto buffers = std::make_shared<SendBuffers>();
  const std::string piece = patternOf(10'000);
  constexpr std::size_t kPieces = SendBuffers::kBuffers * SendBuffers::kBufferBytes / 10'000 - 1;
  const auto send = [&] {
    FrameSender sender([](const grpc::ByteBuffer&) { return true; });
    FrameOutlet outlet(sender, buffers, {[](std::optional<long>) { return std::string(100, 'h'); }, nullptr, nullptr});
    core::internal::OutputStreambuf buffer(outlet, "a request of a call with some name");
    for (std::size_t i = 0; i < kPieces; ++i)
      buffer.sputn(piece.data(), static_cast<long>(piece.size()));
    buffer.finish();
  };
  EXPECT_GT(failEachAllocation(send), 10);
}

}  // namespace
}  // namespace agent::spf::grpc_transport::internal
