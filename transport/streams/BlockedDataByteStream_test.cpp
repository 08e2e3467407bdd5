#include "transport/streams/BlockedDataByteStream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/numeric/conversion/cast.hpp>
#include <memory>
#include <string>

#include "transport/streams/readBytes.h"
#include "transport/streams/testing/streamTools.h"

namespace parallel::spf::transport {
namespace {

using namespace transport::testing;
using ::testing::ElementsAre;

std::string textThrownByReading(const Bytes& wire) {
  BlockedDataByteStream stream(streamOf(wire));
  try {
    readBytes(stream);
  } catch (const std::exception& error) {
    return error.what();
  }
  return "nothing was thrown";
}

TEST(BlockedStream, NothingIsReadBeforeTheFirstRead) {
  const auto source = std::make_shared<SpyStream>(bytesOf({0xFF, 0xFF}));
  BlockedDataByteStream stream(source);
  RecordingSink sink;
  EXPECT_EQ(stream.read(sink, 0), 0U);
  EXPECT_TRUE(source->asked.empty());
}

TEST(BlockedStream, EndMarkerEndsTheItemForGood) {
  for (const std::size_t count : {std::size_t{1}, std::size_t{100}, std::numeric_limits<std::size_t>::max()}) {
    const auto source = std::make_shared<SpyStream>(bytesOf({0xFF, 0xFF, 0, 1, 'x'}));
    BlockedDataByteStream stream(source);
    RecordingSink sink;
    EXPECT_EQ(stream.read(sink, count), 0U);
    EXPECT_THAT(source->asked, ElementsAre(0U, 2U));
    EXPECT_EQ(stream.read(sink, count), 0U);
    EXPECT_EQ(source->asked.size(), 2U);
    EXPECT_TRUE(sink.all().empty());
  }
}

TEST(BlockedStream, EmptyBlocksAreSkipped) {
  BlockedDataByteStream stream(streamOf(bytesOf({0, 0, 0, 3, 'x', 'y', 'z', 0, 0, 0, 0, 0, 1, '!', 0, 0, 0xFF, 0xFF})));
  EXPECT_EQ(readBytes(stream), bytesOf("xyz!"));
}

TEST(BlockedStream, ShortReadLeavesTheRestOfTheBlock) {
  const auto source = std::make_shared<SpyStream>(bytesOf({0, 5, 'a', 'b', 'c', 'd', 'e', 0xFF, 0xFF}));
  BlockedDataByteStream stream(source);
  EXPECT_EQ(readBytes(stream, 2), bytesOf("ab"));
  EXPECT_THAT(source->asked, ElementsAre(0U, 2U, 2U));
  EXPECT_EQ(readBytes(stream, 3), bytesOf("cde"));
  EXPECT_THAT(source->asked, ElementsAre(0U, 2U, 2U, 3U));
  EXPECT_TRUE(readBytes(stream, 1).empty());
}

TEST(BlockedStream, ReadSpansBlocks) {
  const Bytes wire = bytesOf({0, 2, 'a', 'b', 0, 1, 'c', 0, 3, 'd', 'e', 'f', 0xFF, 0xFF});
  BlockedDataByteStream stream(streamOf(wire));
  EXPECT_EQ(readBytes(stream, 4), bytesOf("abcd"));
  EXPECT_EQ(readBytes(stream, 100), bytesOf("ef"));
}

TEST(BlockedStream, DataIsPassedOnWithoutACopy) {
  Bytes wire = bytesOf({0, 3, 'a', 'b', 'c', 0xFF, 0xFF});
  const std::byte* const start = wire.data();
  BlockedDataByteStream stream(streamOf(std::move(wire)));
  RecordingSink sink;
  stream.read(sink, 3);
  EXPECT_EQ(sink.starts.back(), start + 2);
}

TEST(BlockedStream, SourceThatEndsInsideABlockFailsAtTheNextHeader) {
  BlockedDataByteStream stream(streamOf(bytesOf({0, 9, 'a', 'b'})));
  RecordingSink sink;
  EXPECT_THROW(stream.read(sink, 9), std::runtime_error);
  EXPECT_EQ(sink.all(), bytesOf("ab"));
  EXPECT_EQ(textThrownByReading(bytesOf({0, 9, 'a', 'b'})), kNotEnough);
}

TEST(BlockedStream, SourceThatEndsBeforeOrInsideAHeaderFails) {
  for (const Bytes& wire : {Bytes{}, bytesOf({0}), bytesOf({0xFF}), bytesOf({0, 0}), bytesOf({0, 1, 'x'})})
    EXPECT_EQ(textThrownByReading(wire), kNotEnough);
}

TEST(BlockedStream, EveryHeaderBelowTheEndMarkerIsAnOverflow) {
  for (int header = -32768; header < -1; ++header) {
    const Bytes wire = bytesOf({(header >> 8) & 0xFF, header & 0xFF, 'x', 0xFF, 0xFF});
    BlockedDataByteStream stream(streamOf(wire));
    RecordingSink sink;
    ASSERT_THROW(stream.read(sink, 1), boost::numeric::negative_overflow) << header;
  }
  EXPECT_EQ(textThrownByReading(bytesOf({0x80, 0x00})), "bad numeric conversion: negative overflow");
}

TEST(BlockedStream, BytesBehindTheEndMarkerStayInTheSource) {
  const auto source = streamOf(join({framed(bytesOf("first")), framed({}), framed(bytesOf("third")), bytesOf("rest")}));
  for (const char* item : {"first", "", "third"}) {
    BlockedDataByteStream stream(source);
    EXPECT_EQ(readBytes(stream), bytesOf(item));
  }
  EXPECT_EQ(readBytes(*source), bytesOf("rest"));
}

TEST(BlockedStream, FailureOfTheCallersSinkPassesThrough) {
  const Bytes wire = framed(patternBytes(70000));
  bool failed = true;
  for (int failAt = 1; failed; ++failAt) {
    BlockedDataByteStream stream(streamOf(wire));
    FailingSink failing(failAt);
    try {
      EXPECT_EQ(stream.read(failing), 70000U);
      failed = false;
    } catch (const FailingSink::Failure&) {
    }
    EXPECT_EQ(failing.hasFailed(), failed);
    if (!failed) {
      EXPECT_EQ(failing.taken, patternBytes(70000));
    }
  }
}

TEST(BlockedStream, DropsItsSharesOfTheSource) {
  const auto source = streamOf(framed(bytesOf("x")));
  {
    BlockedDataByteStream stream(source);
    readBytes(stream);
  }
  EXPECT_EQ(source.use_count(), 1);
}

}  // namespace
}  // namespace parallel::spf::transport
