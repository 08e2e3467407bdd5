#include "toolbox/observedItem.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/interrupt/interpreterContext.h"
#include "platform/interrupt/utInterruptState.h"
#include "toolbox/Item.h"
#include "transport/data/InputPayload.h"
#include "transport/streams/FunctionalByteSink.h"

namespace parallel::toolbox {
namespace {

using spf::transport::FunctionalByteSink;
using spf::transport::SerializableData;

std::shared_ptr<SerializableData> plainOf(std::size_t nbytes) {
  const std::size_t shape[] = {nbytes, 1};
  return plainItem(qxCreateNumericArray(shape, qxClass::Uint8).get()).data;
}

class ObservedItem : public testing::Test {
 protected:
  // The sizes of the writes that reach the sink.
  std::vector<std::size_t> writesOf(const SerializableData& item) const {
    std::vector<std::size_t> writes;
    FunctionalByteSink sink([&](const std::byte*, std::size_t nbytes) { writes.push_back(nbytes); });
    item.serialize(sink);
    return writes;
  }

  std::shared_ptr<TransferProgress> progress_ = std::make_shared<TransferProgress>();
  std::shared_ptr<CallObservation> observation_ = std::make_shared<CallObservation>(progress_);
};

TEST_F(ObservedItem, LargeWriteIsCutIntoPiecesOfWholeBlocksAndCounted) {
  const std::size_t piece = 32 * std::size_t{32767};
  EXPECT_EQ(writesOf(*observedItem(plainOf(2 * piece + 1), observation_)), (std::vector<std::size_t>{piece, piece, 1}));
  EXPECT_EQ(progress_->packed, 2 * piece + 1);
}

TEST_F(ObservedItem, EmptyWriteStaysOneWrite) {
  EXPECT_EQ(writesOf(*observedItem(plainOf(0), observation_)), std::vector<std::size_t>{0});
}

TEST_F(ObservedItem, InterruptEndsTheEncodingBetweenPieces) {
  const foundation::usm::InterpreterContext context;
  std::size_t written = 0;
  FunctionalByteSink sink([&](const std::byte*, std::size_t nbytes) {
    written += nbytes;
    utInterruptState::request();
  });
  const auto item = observedItem(plainOf(4 << 20), observation_);
  EXPECT_THROW(item->serialize(sink), Corvane::System::InterruptException);
  EXPECT_EQ(written, 32U * 32767U);
}

TEST_F(ObservedItem, InterruptIsLeftToThreadsOfTheInterpreter) {
  utInterruptState::request();
  EXPECT_EQ(writesOf(*observedItem(plainOf(10), observation_)), std::vector<std::size_t>{10});
  EXPECT_TRUE(utInterruptState::isPending());
  utInterruptState::clear();
}

TEST_F(ObservedItem, KnownSizeIsPassedOn) {
  EXPECT_EQ(observedItem(plainOf(12345), observation_)->serializedSizeHint(), plainOf(12345)->serializedSizeHint());
}

TEST_F(ObservedItem, PayloadOfAMessageAndALargeItemReservesEnoughForBoth) {
  zksmessages::TaskDescription description;
  for (int i = 0; i < 100; ++i)
    description.add_argv("an argument that takes some bytes");
  const spf::transport::InputPayload payload(
      {observedItem(messageItem(description).data, observation_), observedItem(plainOf(1 << 20), observation_)});
  std::size_t written = 0;
  FunctionalByteSink sink([&](const std::byte*, std::size_t nbytes) { written += nbytes; });
  payload.serialize(sink);
  EXPECT_GE(payload.serializedSizeHint(), written);
}

}  // namespace
}  // namespace parallel::toolbox
