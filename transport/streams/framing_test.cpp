// Writer and reader of the framing against its bytes, which docs/framing.md shows, and against each other.
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <boost/numeric/conversion/cast.hpp>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "transport/streams/BlockedDataByteSink.h"
#include "transport/streams/BlockedDataByteStream.h"
#include "transport/streams/readBytes.h"
#include "transport/streams/testing/streamTools.h"

namespace parallel::spf::transport {
namespace {

using namespace transport::testing;

struct Golden {
  Bytes value;
  Bytes wire;
};

const std::vector<Golden>& goldens() {
  static const std::vector<Golden> all = [] {
    const Bytes full = bytesOf({0x7F, 0xFF});
    const Bytes end = bytesOf({0xFF, 0xFF});
    const auto piece = [](std::size_t count, std::size_t from, std::size_t to) {
      const Bytes bytes = patternBytes(count);
      return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.begin() + static_cast<std::ptrdiff_t>(to));
    };
    return std::vector<Golden>{
        {{}, end},
        {bytesOf("a"), bytesOf({0x00, 0x01, 'a', 0xFF, 0xFF})},
        {bytesOf("abcde"), bytesOf({0x00, 0x05, 'a', 'b', 'c', 'd', 'e', 0xFF, 0xFF})},
        {bytesOf({0xFF, 0xFF}), bytesOf({0x00, 0x02, 0xFF, 0xFF, 0xFF, 0xFF})},
        {patternBytes(256), join({bytesOf({0x01, 0x00}), patternBytes(256), end})},
        {patternBytes(32766), join({bytesOf({0x7F, 0xFE}), patternBytes(32766), end})},
        {patternBytes(32767), join({full, patternBytes(32767), end})},
        {patternBytes(32768),
         join({full, piece(32768, 0, 32767), bytesOf({0x00, 0x01}), piece(32768, 32767, 32768), end})},
        {patternBytes(65534), join({full, piece(65534, 0, 32767), full, piece(65534, 32767, 65534), end})},
        {patternBytes(65535), join({full, piece(65535, 0, 32767), full, piece(65535, 32767, 65534),
                                    bytesOf({0x00, 0x01}), piece(65535, 65534, 65535), end})},
        {patternBytes(70000), join({full, piece(70000, 0, 32767), full, piece(70000, 32767, 65534),
                                    bytesOf({0x11, 0x72}), piece(70000, 65534, 70000), end})},
    };
  }();
  return all;
}

Bytes writeInPieces(const Bytes& value, std::size_t pieceBytes) {
  RecordingSink sink;
  BlockedDataByteSink blocks(sink);
  for (std::size_t start = 0; start < value.size(); start += pieceBytes)
    blocks.write(value.data() + start, std::min(pieceBytes, value.size() - start));
  blocks.close();
  return sink.all();
}

Bytes readInPieces(const std::shared_ptr<ByteStream>& source, std::size_t pieceBytes) {
  BlockedDataByteStream stream(source);
  Bytes all;
  while (true) {
    const Bytes piece = readBytes(stream, pieceBytes);
    all.insert(all.end(), piece.begin(), piece.end());
    if (piece.size() < pieceBytes)
      return all;
  }
}

void checkGolden(const Golden& golden) {
  SCOPED_TRACE(golden.value.size());
  EXPECT_EQ(framed(golden.value), golden.wire);
  BlockedDataByteStream whole(streamOf(golden.wire));
  EXPECT_EQ(readBytes(whole), golden.value);
  for (std::size_t pieceBytes = 1; pieceBytes <= 131072; pieceBytes *= 2) {
    EXPECT_EQ(writeInPieces(golden.value, pieceBytes), golden.wire) << pieceBytes;
    EXPECT_EQ(readInPieces(streamOf(golden.wire), pieceBytes), golden.value) << pieceBytes;
  }
  const auto several = streamOf(join({golden.wire, golden.wire, golden.wire, bytesOf("!")}));
  for (int item = 0; item < 3; ++item)
    EXPECT_EQ(readInPieces(several, 4096), golden.value);
  EXPECT_EQ(readBytes(*several), bytesOf("!"));
}

TEST(Framing, GoldenBytesAreWrittenAndReadInEveryPieceSize) {
  for (const Golden& golden : goldens())
    checkGolden(golden);
}

// Every length the wire can be cut to; for long ones those around the borders and a sample of the others.
std::vector<std::size_t> cutsOf(const Bytes& wire) {
  std::vector<std::size_t> cuts;
  for (std::size_t cut = 0; cut < wire.size(); ++cut) {
    const std::size_t inBlock = cut % 32769;
    const bool atBorder = inBlock < 4 || inBlock > 32765 || wire.size() - cut < 6;
    if (wire.size() < 1000 || atBorder || cut % 997 == 0)
      cuts.push_back(cut);
  }
  return cuts;
}

TEST(Framing, EveryTruncationFailsAndDeliversABeginningOfTheValue) {
  for (const Golden& golden : goldens()) {
    for (const std::size_t cut : cutsOf(golden.wire)) {
      BlockedDataByteStream stream(
          streamOf(Bytes(golden.wire.begin(), golden.wire.begin() + static_cast<std::ptrdiff_t>(cut))));
      RecordingSink sink;
      try {
        stream.read(sink);
        ADD_FAILURE() << "cut to " << cut << " of " << golden.wire.size() << " was read as whole";
      } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Byte stream did not have enough bytes for deserializing type");
      }
      const Bytes got = sink.all();
      ASSERT_LE(got.size(), golden.value.size());
      EXPECT_TRUE(std::equal(got.begin(), got.end(), golden.value.begin())) << cut;
    }
  }
}

// The framing once more, in the plainest words.
struct Decoded {
  enum class Outcome { Complete, TooShort, NegativeHeader } outcome;
  Bytes data;
  std::size_t consumed;
};

Decoded decodeByHand(const Bytes& wire) {
  Bytes data;
  std::size_t at = 0;
  while (true) {
    if (wire.size() - at < 2)
      return {Decoded::Outcome::TooShort, data, wire.size()};
    int header = std::to_integer<int>(wire[at]) * 256 + std::to_integer<int>(wire[at + 1]);
    at += 2;
    if (header == 0xFFFF)
      return {Decoded::Outcome::Complete, data, at};
    if (header >= 0x8000)
      return {Decoded::Outcome::NegativeHeader, data, at};
    for (; header > 0 && at < wire.size(); --header)
      data.push_back(wire[at++]);
  }
}

Decoded decodeByStream(const Bytes& wire) {
  const auto source = streamOf(wire);
  BlockedDataByteStream stream(source);
  RecordingSink sink;
  auto outcome = Decoded::Outcome::Complete;
  try {
    stream.read(sink);
  } catch (const boost::numeric::negative_overflow&) {
    outcome = Decoded::Outcome::NegativeHeader;
  } catch (const std::runtime_error&) {
    outcome = Decoded::Outcome::TooShort;
  }
  return {outcome, sink.all(), wire.size() - readBytes(*source).size()};
}

bool operator==(const Decoded& left, const Decoded& right) {
  return left.outcome == right.outcome && left.data == right.data && left.consumed == right.consumed;
}

TEST(Framing, EveryShortWireOverTheBytesThatMatterIsReadAsItStands) {
  const Bytes alphabet = bytesOf({0x00, 0x01, 0x02, 0x7F, 0x80, 0xFF});
  std::vector<Bytes> wires{{}};
  std::size_t checked = 0;
  for (int length = 0; length <= 6; ++length) {
    std::vector<Bytes> longer;
    for (const Bytes& wire : wires) {
      ASSERT_EQ(decodeByStream(wire), decodeByHand(wire)) << ::testing::PrintToString(wire);
      ++checked;
      for (const std::byte next : alphabet) {
        longer.push_back(wire);
        longer.back().push_back(next);
      }
    }
    wires = std::move(longer);
  }
  EXPECT_EQ(checked, 55987U);  // 1 + 6 + ... + 6^6
}

RC_GTEST_PROP(FramingProperty, AnyBytesAreReadAsTheFormatSays, (const std::vector<std::uint8_t>& raw)) {
  Bytes wire;
  for (const std::uint8_t byte : raw)
    wire.push_back(std::byte{byte});
  RC_ASSERT(decodeByStream(wire) == decodeByHand(wire));
}

// Sizes that crowd around the block's size, where mistakes live.
rc::Gen<std::size_t> pieceSizes() {
  return rc::gen::oneOf(rc::gen::inRange<std::size_t>(0, 100), rc::gen::inRange<std::size_t>(32760, 32775),
                        rc::gen::inRange<std::size_t>(0, 100000));
}

// No empty block, all full but the last.
void checkBlocks(const Bytes& wire) {
  std::size_t at = 0;
  std::size_t previous = 32767;
  while (true) {
    RC_ASSERT(wire.size() - at >= 2);
    const std::size_t header = std::to_integer<std::size_t>(wire[at]) << 8 | std::to_integer<std::size_t>(wire[at + 1]);
    at += 2;
    if (header == 0xFFFF)
      break;
    RC_ASSERT(header > 0);
    RC_ASSERT(header <= 32767);
    RC_ASSERT(previous == 32767);
    previous = header;
    at += header;
    RC_ASSERT(at <= wire.size());
  }
  RC_ASSERT(at == wire.size());
}

RC_GTEST_PROP(FramingProperty, AnySplitOfWritesAndReadsKeepsTheBytes, ()) {
  const auto writes = *rc::gen::resize(8, rc::gen::container<std::vector<std::size_t>>(pieceSizes()));
  const auto reads = *rc::gen::resize(8, rc::gen::container<std::vector<std::size_t>>(pieceSizes()));
  std::size_t total = 0;
  for (const std::size_t size : writes)
    total += size;
  const Bytes value = patternBytes(total);
  RecordingSink sink;
  BlockedDataByteSink blocks(sink);
  std::size_t written = 0;
  for (const std::size_t size : writes) {
    blocks.write(value.data() + written, size);
    written += size;
  }
  blocks.close();
  checkBlocks(sink.all());
  RC_ASSERT(sink.all() == framed(value));

  const auto source = streamOf(join({sink.all(), bytesOf("next")}));
  BlockedDataByteStream stream(source);
  Bytes back;
  for (const std::size_t size : reads) {
    const Bytes piece = readBytes(stream, size);
    RC_ASSERT(piece.size() == std::min(size, total - back.size()));
    back.insert(back.end(), piece.begin(), piece.end());
  }
  const Bytes rest = readBytes(stream);
  back.insert(back.end(), rest.begin(), rest.end());
  RC_ASSERT(back == value);
  RC_ASSERT(readBytes(*source) == bytesOf("next"));
}

}  // namespace
}  // namespace parallel::spf::transport
