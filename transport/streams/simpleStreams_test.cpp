// The sink and the streams that stand at the ends of a stack.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <memory>
#include <utility>

#include "transport/streams/BoundedByteStream.h"
#include "transport/streams/ByteVectorByteStream.h"
#include "transport/streams/FunctionalByteSink.h"
#include "transport/streams/testing/streamTools.h"

namespace parallel::spf::transport {
namespace {

using namespace transport::testing;
using ::testing::ElementsAre;

constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

TEST(FunctionalByteSink, EachWriteIsOneCallWithTheSameArguments) {
  std::vector<std::pair<const std::byte*, std::size_t>> calls;
  FunctionalByteSink sink([&calls](const std::byte* data, std::size_t nbytes) { calls.emplace_back(data, nbytes); });
  const Bytes bytes = patternBytes(10);
  sink.write(bytes.data(), 10);
  sink.write(nullptr, 0);
  EXPECT_THAT(calls, ElementsAre(std::pair(bytes.data(), std::size_t{10}), std::pair(nullptr, std::size_t{0})));
}

TEST(FunctionalByteSink, EmptyFunctionThrowsAtTheFirstWrite) {
  FunctionalByteSink sink(nullptr);
  EXPECT_THROW(sink.write(nullptr, 0), std::bad_function_call);
}

TEST(FunctionalByteSink, ExceptionOfTheFunctionPassesThrough) {
  FunctionalByteSink sink([](const std::byte*, std::size_t) { throw FailingSink::Failure(); });
  EXPECT_THROW(sink.write(nullptr, 0), FailingSink::Failure);
}

TEST(ByteVectorByteStream, EmptyVectorStillMakesOneEmptyWrite) {
  ByteVectorByteStream stream({});
  RecordingSink sink;
  EXPECT_EQ(stream.read(sink, 10), 0U);
  EXPECT_THAT(sink.sizes(), ElementsAre(0U));
}

TEST(ByteVectorByteStream, ReadsGoOnWhereTheLastOneEnded) {
  ByteVectorByteStream stream(bytesOf("abcde"));
  RecordingSink sink;
  EXPECT_EQ(stream.read(sink, 3), 3U);
  EXPECT_EQ(stream.read(sink, 3), 2U);
  EXPECT_EQ(stream.read(sink, 3), 0U);
  EXPECT_THAT(sink.writes, ElementsAre(bytesOf("abc"), bytesOf("de"), Bytes{}));
}

TEST(ByteVectorByteStream, DefaultCountReadsToTheEndFromTheVectorItself) {
  Bytes bytes = patternBytes(70000);
  const std::byte* const start = bytes.data();
  ByteVectorByteStream stream(std::move(bytes));
  RecordingSink sink;
  ByteStream& base = stream;
  EXPECT_EQ(base.read(sink), 70000U);
  EXPECT_THAT(sink.starts, ElementsAre(start));
  EXPECT_EQ(sink.all(), patternBytes(70000));
}

TEST(ByteVectorByteStream, BytesOfAFailedWriteAreReadAgain) {
  ByteVectorByteStream stream(bytesOf("abc"));
  FailingSink failing(1);
  EXPECT_THROW(stream.read(failing, 2), FailingSink::Failure);
  RecordingSink sink;
  EXPECT_EQ(stream.read(sink), 3U);
}

TEST(BoundedByteStream, StopsAtTheLimitAndLeavesTheRestInTheSource) {
  const auto source = std::make_shared<SpyStream>(bytesOf("0123456789"));
  BoundedByteStream stream(source, 4);
  RecordingSink sink;
  EXPECT_EQ(stream.read(sink, 100), 4U);
  EXPECT_EQ(stream.read(sink, 100), 0U);
  EXPECT_THAT(source->asked, ElementsAre(4U, 0U));
  EXPECT_EQ(sink.all(), bytesOf("0123"));
  RecordingSink rest;
  EXPECT_EQ(source->read(rest), 6U);
  EXPECT_EQ(rest.all(), bytesOf("456789"));
}

TEST(BoundedByteStream, ZeroLimitForwardsAReadOfNothing) {
  const auto source = std::make_shared<SpyStream>(bytesOf("0123"));
  BoundedByteStream stream(source, 0);
  RecordingSink sink;
  EXPECT_EQ(stream.read(sink, kAll), 0U);
  EXPECT_THAT(source->asked, ElementsAre(0U));
}

TEST(BoundedByteStream, ReadsInPiecesCountTowardsTheLimit) {
  const auto source = std::make_shared<SpyStream>(bytesOf("0123456789"));
  BoundedByteStream stream(source, 5);
  RecordingSink sink;
  EXPECT_EQ(stream.read(sink, 3), 3U);
  EXPECT_EQ(stream.read(sink, 3), 2U);
  EXPECT_EQ(stream.read(sink, 0), 0U);
  EXPECT_THAT(source->asked, ElementsAre(3U, 2U, 0U));
}

TEST(BoundedByteStream, SourceThatEndsEarlyIsAShortRead) {
  BoundedByteStream stream(streamOf(bytesOf("abc")), 10);
  RecordingSink sink;
  EXPECT_EQ(stream.read(sink), 3U);
  EXPECT_EQ(stream.read(sink), 0U);
}

TEST(BoundedByteStream, DropsItsShareOfTheSource) {
  const auto source = streamOf({});
  {
    const BoundedByteStream stream(source, 1);
    EXPECT_EQ(source.use_count(), 2);
  }
  EXPECT_EQ(source.use_count(), 1);
}

}  // namespace
}  // namespace parallel::spf::transport
