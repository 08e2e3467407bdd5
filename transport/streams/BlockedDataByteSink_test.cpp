#include "transport/streams/BlockedDataByteSink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/logging/sinks.h"
#include "transport/streams/blockFormat.h"
#include "transport/streams/testing/streamTools.h"

namespace parallel::spf::transport {
namespace {

using namespace transport::testing;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const Bytes kFull = bytesOf({0x7F, 0xFF});
const Bytes kEnd = bytesOf({0xFF, 0xFF});

class BlockedSink : public ::testing::Test {
 protected:
  void write(BlockedDataByteSink& blocks, const Bytes& bytes) { blocks.write(bytes.data(), bytes.size()); }

  RecordingSink sink_;
};

TEST_F(BlockedSink, NothingWrittenIsTheEndMarkerAlone) {
  BlockedDataByteSink blocks(sink_);
  EXPECT_THAT(sink_.writes, IsEmpty());
  blocks.close();
  EXPECT_THAT(sink_.writes, ElementsAre(kEnd));
}

TEST_F(BlockedSink, EmptyWriteChangesNothing) {
  BlockedDataByteSink blocks(sink_);
  blocks.write(nullptr, 0);
  write(blocks, bytesOf("ab"));
  blocks.write(nullptr, 0);
  EXPECT_THAT(sink_.writes, IsEmpty());
  blocks.close();
  EXPECT_EQ(sink_.all(), bytesOf({0, 2, 'a', 'b', 0xFF, 0xFF}));
}

TEST_F(BlockedSink, OneByteLessThanABlockWaitsForClose) {
  BlockedDataByteSink blocks(sink_);
  write(blocks, patternBytes(32766));
  EXPECT_THAT(sink_.writes, IsEmpty());
  blocks.close();
  EXPECT_THAT(sink_.writes, ElementsAre(bytesOf({0x7F, 0xFE}), patternBytes(32766), kEnd));
}

TEST_F(BlockedSink, BlockLeavesAsSoonAsItIsFull) {
  BlockedDataByteSink blocks(sink_);
  const Bytes data = patternBytes(32767);
  blocks.write(data.data(), 1);
  EXPECT_THAT(sink_.writes, IsEmpty());
  blocks.write(data.data() + 1, 32766);
  EXPECT_THAT(sink_.sizes(), ElementsAre(2U, 1U, 32766U));
  EXPECT_EQ(sink_.all(), join({kFull, data}));
  blocks.close();
  EXPECT_EQ(sink_.all(), join({kFull, data, kEnd}));
}

TEST_F(BlockedSink, LongWriteEmitsItsFullBlocksAtOnce) {
  BlockedDataByteSink blocks(sink_);
  const Bytes data = patternBytes(70000);
  write(blocks, data);
  EXPECT_THAT(sink_.sizes(), ElementsAre(2U, 32767U, 2U, 32767U));
  blocks.close();
  EXPECT_THAT(sink_.sizes(), ElementsAre(2U, 32767U, 2U, 32767U, 2U, 4466U, 2U));
  EXPECT_EQ(sink_.writes[4], bytesOf({0x11, 0x72}));
  EXPECT_EQ(sink_.writes[5], Bytes(data.begin() + 65534, data.end()));
}

TEST_F(BlockedSink, FullBlocksComeFromTheCallersMemory) {
  BlockedDataByteSink blocks(sink_);
  const Bytes data = patternBytes(10 + 2 * 32767);
  blocks.write(data.data(), 10);
  blocks.write(data.data() + 10, data.size() - 10);
  ASSERT_EQ(sink_.sizes(), (std::vector<std::size_t>{2, 10, 32757, 2, 32767}));
  EXPECT_EQ(sink_.starts[2], data.data() + 10);
  EXPECT_EQ(sink_.starts[4], data.data() + 32767);
  blocks.close();
}

TEST_F(BlockedSink, SecondCloseDoesNothing) {
  BlockedDataByteSink blocks(sink_);
  write(blocks, bytesOf("x"));
  blocks.close();
  const Bytes once = sink_.all();
  blocks.close();
  EXPECT_EQ(sink_.all(), once);
}

TEST_F(BlockedSink, WriteAfterCloseLandsBehindTheEndMarker) {
  {
    BlockedDataByteSink blocks(sink_);
    blocks.close();
    write(blocks, patternBytes(32767));
  }
  EXPECT_EQ(sink_.all(), join({kEnd, kFull, patternBytes(32767)}));
}

class UnclosedSink : public BlockedSink {
 protected:
  UnclosedSink() { logging::setEnabledLevels("parallel::spf::transport", logging::kAll); }
  ~UnclosedSink() override { logging::setEnabledLevels("parallel::spf::transport", 0); }

  std::vector<logging::LogRecord> records_;
  logging::SinkHandle handle_{[this](const logging::LogRecord& record) { records_.push_back(record); }};
};

TEST_F(UnclosedSink, DestructorClosesItAndWarns) {
  { write(*std::make_unique<BlockedDataByteSink>(sink_), bytesOf("abc")); }
  EXPECT_EQ(sink_.all(), bytesOf({0, 3, 'a', 'b', 'c', 0xFF, 0xFF}));
  ASSERT_EQ(records_.size(), 1U);
  EXPECT_EQ(records_[0].logger, "parallel::spf::transport");
  EXPECT_EQ(records_[0].level, 8U);
  EXPECT_EQ(records_[0].text, "BlockedDataByteSink not closed manually. Closing on destruction.");
}

TEST_F(UnclosedSink, ClosedSinkDoesNotWarn) {
  {
    BlockedDataByteSink blocks(sink_);
    blocks.close();
  }
  EXPECT_THAT(records_, IsEmpty());
}

TEST_F(UnclosedSink, FailureOfTheDestructorsCloseIsLoggedAndKept) {
  for (int failAt = 1; failAt <= 3; ++failAt) {
    records_.clear();
    FailingSink failing(failAt);
    { write(*std::make_unique<BlockedDataByteSink>(failing), bytesOf("abc")); }
    ASSERT_EQ(records_.size(), 3U);
    EXPECT_EQ(records_[0].level, 8U);
    EXPECT_EQ(records_[1].level, 256U);
    EXPECT_EQ(records_[1].text, "Error thrown closing BlockedDataByteSink.");
    EXPECT_EQ(records_[2].level, 16U);
    EXPECT_THAT(records_[2].text, StartsWith("Exception caught: "));
    EXPECT_THAT(records_[2].text, HasSubstr("the sink is full"));
  }
}

TEST_F(UnclosedSink, EachRecordObeysItsOwnLevel) {
  logging::setEnabledLevels("parallel::spf::transport", 256);
  FailingSink failing(1);
  { const BlockedDataByteSink blocks(failing); }
  ASSERT_EQ(records_.size(), 1U);
  EXPECT_EQ(records_[0].level, 256U);
}

// Whatever write fails: the failure reaches the caller, and what was taken is the wire's beginning.
TEST_F(BlockedSink, FailureOfAnyWriteReachesTheCaller) {
  const Bytes data = patternBytes(70000);
  const Bytes wire = framed(data);
  bool failed = true;
  int failAt = 1;
  for (; failed; ++failAt) {
    FailingSink failing(failAt);
    {
      BlockedDataByteSink blocks(failing);
      const auto all = [&] {
        blocks.write(data.data(), 10);
        blocks.write(data.data() + 10, data.size() - 10);
        blocks.close();
      };
      try {
        all();
        failed = false;
      } catch (const FailingSink::Failure&) {
        EXPECT_EQ(failing.taken, Bytes(wire.begin(), wire.begin() + static_cast<std::ptrdiff_t>(failing.taken.size())));
      }
    }
    EXPECT_EQ(failing.hasFailed(), failed);
    if (!failed) {
      EXPECT_EQ(failing.taken, wire);
    }
  }
  EXPECT_EQ(failAt, 10);  // 8 writes, one more round without a failure
}

TEST(BlockFormat, FramedSizeIsWhatTheSinkWrites) {
  for (const std::size_t nbytes : {0, 1, 32766, 32767, 32768, 65534, 65535, 70000})
    EXPECT_EQ(block_format::framedBytes(nbytes), framed(patternBytes(nbytes)).size()) << nbytes;
}

}  // namespace
}  // namespace parallel::spf::transport
