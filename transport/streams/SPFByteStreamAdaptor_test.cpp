#include "transport/streams/SPFByteStreamAdaptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <streambuf>

#include "platform/interrupt/XExceptionTester.h"
#include "platform/interrupt/interpreterContext.h"
#include "platform/interrupt/utInterruptState.h"
#include "transport/streams/BlockedDataByteStream.h"
#include "transport/streams/readBytes.h"
#include "transport/streams/testing/streamTools.h"

namespace parallel::spf::transport {
namespace {

using namespace transport::testing;
using Corvane::System::InterruptException;
using foundation::usm::InterpreterContext;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kPoint = "SPFByteStreamAdaptor::ctrl_c";

std::string textOf(std::size_t count) {
  const Bytes bytes = patternBytes(count);
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::shared_ptr<std::istringstream> inputOf(std::size_t count) {
  return std::make_shared<std::istringstream>(textOf(count));
}

class Adaptor : public ::testing::Test {
 protected:
  ~Adaptor() override { utInterruptState::clear(); }

  RecordingSink sink_;
};

TEST_F(Adaptor, ReadOfNothingTouchesNothing) {
  const InterpreterContext context;
  utInterruptState::request();
  SPFByteStreamAdaptor stream(nullptr);
  EXPECT_EQ(stream.read(sink_, 0), 0U);
  EXPECT_THAT(sink_.writes, IsEmpty());
}

TEST_F(Adaptor, DataArriveInChunksOf16384) {
  SPFByteStreamAdaptor stream(inputOf(40000));
  EXPECT_EQ(stream.read(sink_, 100000), 40000U);
  EXPECT_THAT(sink_.sizes(), ElementsAre(16384U, 16384U, 7232U));
  EXPECT_EQ(sink_.all(), patternBytes(40000));
}

TEST_F(Adaptor, ReadOfExactlyAllLeavesTheStreamGood) {
  const auto input = inputOf(10);
  SPFByteStreamAdaptor stream(input);
  EXPECT_EQ(stream.read(sink_, 10), 10U);
  EXPECT_TRUE(input->good());
  EXPECT_EQ(stream.read(sink_, 10), 0U);
  EXPECT_TRUE(input->eof());
  EXPECT_EQ(stream.read(sink_, 10), 0U);
  EXPECT_THAT(sink_.sizes(), ElementsAre(10U));
}

TEST_F(Adaptor, SizesAroundTheChunkAreDelivered) {
  for (const std::size_t count : {1, 16383, 16384, 16385, 32768, 70000}) {
    const auto input = inputOf(count + 5);
    SPFByteStreamAdaptor stream(input);
    EXPECT_EQ(readBytes(stream, count), patternBytes(count));
    EXPECT_TRUE(input->good());
    EXPECT_EQ(readBytes(stream).size(), 5U);
  }
}

TEST_F(Adaptor, FramedItemIsReadThroughIt) {
  const Bytes wire = framed(patternBytes(70000));
  const auto input =
      std::make_shared<std::istringstream>(std::string(reinterpret_cast<const char*>(wire.data()), wire.size()));
  BlockedDataByteStream stream(std::make_shared<SPFByteStreamAdaptor>(input));
  EXPECT_EQ(readBytes(stream), patternBytes(70000));
}

TEST_F(Adaptor, FailureOfTheSinkPassesThrough) {
  const auto input = inputOf(40000);
  SPFByteStreamAdaptor stream(input);
  FailingSink failing(2);
  EXPECT_THROW(stream.read(failing), FailingSink::Failure);
  EXPECT_EQ(failing.taken, patternBytes(16384));
}

// Gives 20000 bytes and then throws.
class BreakingBuffer : public std::streambuf {
 protected:
  int_type underflow() override {
    if (given_ == 2)
      throw std::runtime_error("the connection is lost");
    ++given_;
    setg(data_.data(), data_.data(), data_.data() + data_.size());
    return traits_type::to_int_type(data_[0]);
  }

 private:
  std::string data_ = std::string(10000, 'x');
  int given_ = 0;
};

TEST_F(Adaptor, StreamThatFailsLooksEnded) {
  BreakingBuffer buffer;
  const auto input = std::make_shared<std::istream>(&buffer);
  SPFByteStreamAdaptor stream(input);
  EXPECT_LE(stream.read(sink_), 20000U);
  EXPECT_TRUE(input->bad());
  EXPECT_EQ(stream.read(sink_, 1), 0U);
}

TEST_F(Adaptor, FailureThatTheStreamRaisesPassesThrough) {
  BreakingBuffer buffer;
  const auto input = std::make_shared<std::istream>(&buffer);
  input->exceptions(std::ios::badbit);
  SPFByteStreamAdaptor stream(input);
  try {
    stream.read(sink_);
    FAIL() << "the failure was taken for the end";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "the connection is lost");
  }
  EXPECT_EQ(sink_.all().size(), 16384U);
}

TEST_F(Adaptor, PendingInterruptEndsTheReadBeforeItsFirstChunk) {
  const InterpreterContext context;
  const auto input = inputOf(100);
  SPFByteStreamAdaptor stream(input);
  utInterruptState::request();
  EXPECT_THROW(stream.read(sink_), InterruptException);
  EXPECT_THAT(sink_.writes, IsEmpty());
  EXPECT_EQ(input->tellg(), 0);
  EXPECT_EQ(stream.read(sink_), 100U);
}

TEST_F(Adaptor, InterruptDuringATransferEndsItBetweenChunks) {
  const InterpreterContext context;
  const auto input = inputOf(70000);
  SPFByteStreamAdaptor stream(input);
  std::size_t taken = 0;
  FunctionalByteSink interrupting([&taken](const std::byte*, std::size_t nbytes) {
    taken += nbytes;
    if (taken == 2 * 16384)
      utInterruptState::request();
  });
  EXPECT_THROW(stream.read(interrupting), InterruptException);
  EXPECT_EQ(taken, 2U * 16384);
  EXPECT_EQ(input->tellg(), 2 * 16384);
}

TEST_F(Adaptor, ThreadOutsideTheHostsContextIsNotInterrupted) {
  SPFByteStreamAdaptor stream(inputOf(70000));
  utInterruptState::request();
  EXPECT_EQ(stream.read(sink_), 70000U);
  EXPECT_TRUE(utInterruptState::isPending());
}

TEST_F(Adaptor, ArmedFaultPointIsACtrlCBeforeTheFirstChunk) {
  const InterpreterContext context;
  const auto input = inputOf(100);
  SPFByteStreamAdaptor stream(input);
  {
    const xtester::ArmedTester armed(kPoint);
    EXPECT_EQ(stream.read(sink_, 0), 0U);
    EXPECT_THROW(stream.read(sink_), InterruptException);
  }
  EXPECT_THAT(sink_.writes, IsEmpty());
  EXPECT_EQ(input->tellg(), 0);
  EXPECT_EQ(stream.read(sink_), 100U);
}

TEST_F(Adaptor, ArmedFaultPointOutsideTheContextOnlyLeavesTheInterruptPending) {
  const xtester::ArmedTester armed(kPoint);
  SPFByteStreamAdaptor stream(inputOf(100));
  EXPECT_EQ(stream.read(sink_), 100U);
  EXPECT_TRUE(utInterruptState::isPending());
}

TEST_F(Adaptor, AnotherArmedFaultPointChangesNothing) {
  const InterpreterContext context;
  const xtester::ArmedTester armed("another::point");
  SPFByteStreamAdaptor stream(inputOf(100));
  EXPECT_EQ(stream.read(sink_), 100U);
}

TEST_F(Adaptor, EndedStreamDoesNotAskForInterrupts) {
  const InterpreterContext context;
  const auto input = inputOf(0);
  SPFByteStreamAdaptor stream(input);
  EXPECT_EQ(stream.read(sink_), 0U);
  utInterruptState::request();
  EXPECT_EQ(stream.read(sink_), 0U);
  EXPECT_TRUE(utInterruptState::isPending());
}

TEST_F(Adaptor, DropsItsShareOfTheStream) {
  const auto input = inputOf(1);
  { const SPFByteStreamAdaptor stream(input); }
  EXPECT_EQ(input.use_count(), 1);
}

}  // namespace
}  // namespace parallel::spf::transport
