#include "transport/streams/readBytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "transport/streams/BlockedDataByteStream.h"
#include "transport/streams/getSerializedBytes.h"
#include "transport/streams/readBigEndian.h"
#include "transport/streams/readBigEndianInt16.h"
#include "transport/streams/testing/streamTools.h"

namespace parallel::spf::transport {
namespace {

using namespace transport::testing;
using ::testing::ElementsAre;

template <class Function>
std::string textThrownBy(Function function) {
  try {
    function();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "nothing was thrown";
}

// Gives its bytes in writes of 1000.
class PiecewiseStream : public ByteStream {
 public:
  explicit PiecewiseStream(Bytes bytes) : bytes_(std::move(bytes)) {}

  std::size_t read(ByteSink& sink, std::size_t nbytes) override {
    std::size_t total = 0;
    while (total < nbytes && total < bytes_.size()) {
      const std::size_t piece = std::min({std::size_t{1000}, nbytes - total, bytes_.size() - total});
      sink.write(bytes_.data() + total, piece);
      total += piece;
    }
    return total;
  }

 private:
  Bytes bytes_;
};

TEST(ReadBytes, WithoutCountReadsToTheEnd) {
  SpyStream stream(patternBytes(70000));
  EXPECT_EQ(readBytes(stream), patternBytes(70000));
  EXPECT_THAT(stream.asked, ElementsAre(std::numeric_limits<std::size_t>::max()));
}

TEST(ReadBytes, WithCountReadsThatMuchInOneRead) {
  SpyStream stream(patternBytes(70000));
  EXPECT_EQ(readBytes(stream, 69999), patternBytes(69999));
  EXPECT_THAT(stream.asked, ElementsAre(69999U));
}

TEST(ReadBytes, ShortStreamGivesAShortVector) {
  SpyStream stream(bytesOf("ab"));
  EXPECT_EQ(readBytes(stream, 5), bytesOf("ab"));
  EXPECT_TRUE(readBytes(stream, 5).empty());
  EXPECT_TRUE(readBytes(stream).empty());
}

TEST(ReadBytes, WritesOfAnySizeAreAppended) {
  for (const std::size_t nbytes : {70'000U, 1'048'576U, 1'048'577U, 7'000'000U}) {
    PiecewiseStream stream(patternBytes(nbytes));
    EXPECT_EQ(readBytes(stream), patternBytes(nbytes));
  }
}

// Though the stream under it holds far more, as the reply does behind one of its items.
TEST(ReadBytes, MemoryFollowsTheBytesThatCome) {
  for (const std::size_t nbytes : {1000U, 66'000U, 1'000'000U}) {
    Bytes reply = framed(patternBytes(nbytes));
    reply.resize(16 << 20);
    BlockedDataByteStream item(streamOf(reply));
    EXPECT_LE(readBytes(item).capacity(), 2 * nbytes) << nbytes;
  }
}

// How much is copied in growing, in all.
std::size_t bytesCopiedFor(std::size_t nbytes) {
  Bytes grown;
  std::size_t copied = 0;
  internal::VectorAppender<std::byte> appender(grown);
  const Bytes piece(16384);
  while (grown.size() < nbytes) {
    const std::size_t size = grown.size();
    const std::size_t capacity = grown.capacity();
    appender(piece.data(), piece.size());
    copied += grown.capacity() == capacity ? 0 : size;
  }
  return copied;
}

TEST(ReadBytes, GrowingCopiesNoMoreThanTheBytesThemselves) {
  for (const std::size_t mebibytes : {1U, 2U, 8U, 64U})
    EXPECT_LE(bytesCopiedFor(mebibytes << 20), mebibytes << 20) << mebibytes;
  EXPECT_LE(bytesCopiedFor(64 << 20), 32U << 20);
}

TEST(ReadBigEndian, Int16IsReadMostSignificantByteFirst) {
  const std::vector<std::pair<Bytes, int>> cases = {{bytesOf({0x7F, 0xFF}), 32767}, {bytesOf({0xFF, 0xFE}), -2},
                                                    {bytesOf({0xFF, 0xFF}), -1},    {bytesOf({0x80, 0x00}), -32768},
                                                    {bytesOf({0x01, 0x02}), 258},   {bytesOf({0, 0}), 0}};
  for (const auto& [bytes, value] : cases) {
    SpyStream stream(bytes);
    EXPECT_EQ(readBigEndianInt16(stream), value);
    EXPECT_THAT(stream.asked, ElementsAre(2U));
  }
}

TEST(ReadBigEndian, EveryWidthTakesItsBytesAndNoMore) {
  SpyStream stream(bytesOf({0xFE, 0x80, 0, 0, 1, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE, 9}));
  EXPECT_EQ(readBigEndianInt8(stream), -2);
  EXPECT_EQ(readBigEndianInt32(stream), std::int32_t{-2147483647});
  EXPECT_EQ(readBigEndianInt64(stream), 9223372036854775806);
  EXPECT_THAT(stream.asked, ElementsAre(1U, 4U, 8U));
  EXPECT_EQ(readBytes(stream), bytesOf({9}));
}

// What the reader says of every stream that is shorter than its integer.
template <class Reader>
void checkShorterStreams(std::size_t width, Reader reader) {
  for (std::size_t count = 0; count < width; ++count) {
    ByteVectorByteStream stream(patternBytes(count));
    EXPECT_EQ(textThrownBy([&] { reader(stream); }), kNotEnough) << count << " bytes of " << width;
  }
}

TEST(ReadBigEndian, EveryShorterStreamIsRefusedInTheSameWords) {
  checkShorterStreams(1, readBigEndianInt8);
  checkShorterStreams(2, readBigEndianInt16);
  checkShorterStreams(4, readBigEndianInt32);
  checkShorterStreams(8, readBigEndianInt64);
}

TEST(ReadBigEndian, StreamThatPushesMoreThanAskedGivesItsFirstBytes) {
  struct Generous : ByteStream {
    std::size_t read(ByteSink& sink, std::size_t) override {
      const Bytes bytes = bytesOf({0, 0, 0, 3, 0, 0, 0, 7, 0xAB, 0xCD});
      sink.write(bytes.data(), bytes.size());
      return bytes.size();
    }
  } stream;
  EXPECT_EQ(readBigEndianInt8(stream), 0);
  EXPECT_EQ(readBigEndianInt16(stream), 0);
  EXPECT_EQ(readBigEndianInt32(stream), 3);
  EXPECT_EQ(readBigEndianInt64(stream), 0x300000007);
}

struct Writer {
  std::vector<Bytes> pieces;
  void serialize(ByteSink& sink) const {
    for (const Bytes& piece : pieces)
      sink.write(piece.data(), piece.size());
  }
};

struct HintingWriter : Writer {
  std::size_t hint = 0;
  std::size_t serializedSizeHint() const noexcept { return hint; }
};

TEST(GetSerializedBytes, ObjectThatWritesNothingGivesAnEmptyVector) {
  EXPECT_TRUE((getSerializedBytes<Writer, char>(Writer{}).empty()));
  EXPECT_TRUE((getSerializedBytes<Writer, char>(Writer{{Bytes{}}}).empty()));
}

TEST(GetSerializedBytes, WritesAreAppendedInOrder) {
  const Writer writer{{bytesOf("ab"), Bytes{}, bytesOf("c")}};
  EXPECT_THAT((getSerializedBytes<Writer, char>(writer)), ElementsAre('a', 'b', 'c'));
  EXPECT_EQ((getSerializedBytes<Writer, std::byte>(writer)), bytesOf("abc"));
  EXPECT_THAT((getSerializedBytes<Writer, unsigned char>(writer)), ElementsAre('a', 'b', 'c'));
}

TEST(GetSerializedBytes, HintOfTheObjectIsReserved) {
  HintingWriter writer;
  for (int piece = 0; piece < 200; ++piece)
    writer.pieces.push_back(patternBytes(1000));
  writer.hint = 200123;
  const std::vector<char> bytes = getSerializedBytes<HintingWriter, char>(writer);
  EXPECT_EQ(bytes.size(), 200000U);
  EXPECT_EQ(bytes.capacity(), 200123U);
}

TEST(GetSerializedBytes, ExceptionOfTheObjectPassesThrough) {
  struct Thrower {
    void serialize(ByteSink& sink) const {
      sink.write(nullptr, 0);
      throw FailingSink::Failure();
    }
  };
  EXPECT_THROW((getSerializedBytes<Thrower, char>(Thrower{})), FailingSink::Failure);
}

}  // namespace
}  // namespace parallel::spf::transport
