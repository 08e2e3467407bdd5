#include "transport/streams/readBytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

constexpr const char* kNotEnough = "Byte stream did not have enough bytes for deserializing type";

template <class Function>
std::string textThrownBy(Function function) {
  try {
    function();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "nothing was thrown";
}

// Gives its bytes in writes of 1000 and says what it is told to say about their number.
class HintingStream : public ByteStream, public SizeHinted {
 public:
  HintingStream(Bytes bytes, std::size_t hint) : bytes_(std::move(bytes)), hint_(hint) {}

  std::size_t read(ByteSink& sink, std::size_t nbytes) override {
    std::size_t total = 0;
    while (total < nbytes && total < bytes_.size()) {
      const std::size_t piece = std::min({std::size_t{1000}, nbytes - total, bytes_.size() - total});
      sink.write(bytes_.data() + total, piece);
      total += piece;
    }
    return total;
  }

  std::size_t sizeHint() const noexcept override {
    ++questions;
    return hint_;
  }

  mutable int questions = 0;

 private:
  Bytes bytes_;
  std::size_t hint_;
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
  HintingStream stream(patternBytes(70000), 0);
  EXPECT_EQ(readBytes(stream), patternBytes(70000));
}

TEST(ReadBytes, KnownSizeIsReservedExactly) {
  const Bytes wire = framed(patternBytes(1 << 20));
  BlockedDataByteStream stream(streamOf(wire));
  const Bytes bytes = readBytes(stream);
  EXPECT_EQ(bytes, patternBytes(1 << 20));
  EXPECT_EQ(bytes.capacity(), wire.size());
}

TEST(ReadBytes, CountLimitsTheReservation) {
  HintingStream stream(patternBytes(300000), 300000);
  EXPECT_EQ(readBytes(stream, 200000).capacity(), 200000U);
}

TEST(ReadBytes, AnnouncementIsNotBelievedBeforeBytesCome) {
  HintingStream stream(patternBytes(1000), std::size_t{1} << 60);
  EXPECT_LE(readBytes(stream).capacity(), 65536U);
}

TEST(ReadBytes, AnnouncementOfMoreThanMemoryIsCapped) {
  HintingStream stream(patternBytes(100000), std::size_t{1} << 60);
  const Bytes bytes = readBytes(stream);
  EXPECT_EQ(bytes, patternBytes(100000));
  EXPECT_LE(bytes.capacity(), kMaxAnnouncedBytes);
}

TEST(ReadBytes, AnnouncementOfTooLittleLosesNothing) {
  for (const std::size_t hint : {1UL, 65536UL, 65537UL, 69999UL}) {
    HintingStream stream(patternBytes(70000), hint);
    EXPECT_EQ(readBytes(stream), patternBytes(70000)) << hint;
  }
}

TEST(ReadBytes, SmallCountDoesNotAskForTheSize) {
  HintingStream stream(patternBytes(10), 10);
  readBytes(stream, 8);
  EXPECT_EQ(stream.questions, 0);
}

TEST(ReadBytes, WithoutAnnouncementTheVectorGrowsGeometrically) {
  HintingStream stream(patternBytes(1000000), 0);
  Bytes grown;
  std::size_t growths = 0;
  internal::VectorAppender<std::byte> appender(grown, 0);
  std::size_t capacity = 0;
  FunctionalByteSink sink([&](const std::byte* data, std::size_t nbytes) {
    appender(data, nbytes);
    growths += grown.capacity() != capacity ? 1 : 0;
    capacity = grown.capacity();
  });
  stream.read(sink, 1000000);
  EXPECT_LE(growths, 12U);
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
