#include "transport/data/OutputPayload.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <boost/numeric/conversion/cast.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/errors/IException.h"
#include "transport/data/InputPayload.h"
#include "transport/data/testing/RecordingByteSink.h"
#include "transport/data/testing/TemporaryDirectory.h"
#include "transport/data/testing/arrays.h"
#include "transport/data/testing/framing.h"
#include "transport/data/testing/streams.h"

namespace parallel::spf::transport {
namespace {

using testing::Bytes;
using testing::bytesOf;
using testing::PiecewiseByteStream;
using testing::StreamWatch;

OutputPayload payloadOf(const Bytes& reply, std::shared_ptr<StreamWatch> watch = std::make_shared<StreamWatch>(),
                        std::size_t pieceBytes = 16384) {
  return OutputPayload::deserialize(std::make_unique<PiecewiseByteStream>(reply, pieceBytes, std::move(watch)));
}

Bytes plainBytes(DeserializableData& item) {
  return testing::bytesOfArray(item.deserializePlain().get());
}

// --- The head ---

TEST(OutputPayload, CountOfZeroGivesNoItemsAndReadsNothingPastTheHead) {
  const auto watch = std::make_shared<StreamWatch>();
  EXPECT_TRUE(payloadOf(bytesOf({0, 0, 0, 0, 0, 0xFF, 0xFF, 1, 2}), watch).getDeserializableData().empty());
  EXPECT_EQ(watch->delivered, 5U);
}

TEST(OutputPayload, AnyVersionByteIsAccepted) {
  Bytes reply = testing::container({testing::replyPlain(bytesOf("abc"))});
  for (int version = 0; version < 256; ++version) {
    reply[0] = static_cast<std::byte>(version);
    const auto items = payloadOf(reply).getDeserializableData();
    ASSERT_EQ(items.size(), 1U);
    EXPECT_EQ(plainBytes(*items[0]), bytesOf("abc"));
  }
}

TEST(OutputPayload, HeadCutAnywhereThrowsAndReleasesTheStream) {
  for (std::size_t length = 0; length < 5; ++length) {
    SCOPED_TRACE(length);
    const auto watch = std::make_shared<StreamWatch>();
    try {
      payloadOf(Bytes(length), watch);
      FAIL() << "a head has five bytes";
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "Byte stream did not have enough bytes for deserializing type");
    }
    EXPECT_TRUE(watch->destroyed);
  }
}

TEST(OutputPayload, NegativeCountOverflowsAndReleasesTheStream) {
  for (const Bytes& head : {bytesOf({0, 0xFF, 0xFF, 0xFF, 0xFF}), bytesOf({0, 0x80, 0, 0, 0})}) {
    const auto watch = std::make_shared<StreamWatch>();
    try {
      payloadOf(head, watch);
      FAIL() << "a count is not negative";
    } catch (const boost::numeric::negative_overflow& error) {
      EXPECT_STREQ(error.what(), "bad numeric conversion: negative overflow");
    }
    EXPECT_TRUE(watch->destroyed);
  }
}

TEST(OutputPayload, CountIsBigEndian) {
  EXPECT_EQ(payloadOf(bytesOf({0, 0, 0, 0x01, 0x02})).getDeserializableData().size(), 0x102U);
}

TEST(OutputPayload, CountIsTheFirstFourBytesOfAStreamThatPushesMore) {
  struct Generous : ByteStream {
    std::size_t read(ByteSink& sink, std::size_t nbytes) override {
      const Bytes bytes = nbytes == 1 ? bytesOf({0}) : bytesOf({0, 0, 0, 2, 0xFF, 0xFF});
      sink.write(bytes.data(), bytes.size());
      return bytes.size();
    }
  };
  EXPECT_EQ(OutputPayload::deserialize(std::make_unique<Generous>()).getDeserializableData().size(), 2U);
}

// --- The items ---

TEST(OutputPayload, MoreItemsThanBytesAreGivenAndFailWhenRead) {
  Bytes reply = testing::container({testing::replyPlain(bytesOf("abc"))});
  reply[4] = std::byte{3};
  const auto items = payloadOf(reply).getDeserializableData();
  ASSERT_EQ(items.size(), 3U);
  EXPECT_EQ(plainBytes(*items[0]), bytesOf("abc"));
  EXPECT_THROW(items[1]->deserializePlain(), IException);
}

TEST(OutputPayload, ListsHoldTheSameItems) {
  const OutputPayload payload = payloadOf(testing::container({{}, {}}));
  const auto first = payload.getDeserializableData();
  ASSERT_EQ(first.size(), 2U);
  EXPECT_NE(first[0], first[1]);
  EXPECT_EQ(first, payload.getDeserializableData());
  EXPECT_EQ(first[0]->shared_from_this(), first[0]);
}

TEST(OutputPayload, TakesTheVectorAway) {
  auto items = payloadOf(testing::container({{}})).getDeserializableData();
  const OutputPayload payload(std::move(items));
  EXPECT_TRUE(items.empty());  // NOLINT(bugprone-use-after-move): what is being tested
  EXPECT_EQ(payload.getDeserializableData().size(), 1U);
}

TEST(OutputPayload, StreamLivesAsLongAsItsLastItem) {
  const auto watch = std::make_shared<StreamWatch>();
  auto items = payloadOf(testing::container({{}, {}}), watch).getDeserializableData();
  items.erase(items.begin());
  EXPECT_FALSE(watch->destroyed);
  items.clear();
  EXPECT_TRUE(watch->destroyed);
}

TEST(OutputPayload, NothingIsReadAheadOfAnItem) {
  const auto watch = std::make_shared<StreamWatch>();
  const Bytes first = testing::framed(testing::replyPlain(bytesOf("abc")));
  const auto items =
      payloadOf(testing::container({testing::replyPlain(bytesOf("abc")), bytesOf("x")}), watch).getDeserializableData();
  EXPECT_EQ(watch->delivered, 5U);
  EXPECT_EQ(plainBytes(*items[0]), bytesOf("abc"));
  EXPECT_EQ(watch->delivered, 5U + first.size());
}

TEST(OutputPayload, ReplyOfOnePlainItemHasItsGoldenBytes) {
  const Bytes reply = bytesOf({0x00, 0x00, 0x00, 0x00, 0x01,                                // version, one item
                               0x00, 0x0B, 0,    0,    0,    0, 0, 0, 0, 3, 'a', 'b', 'c',  // its length and bytes
                               0xFF, 0xFF});
  const auto items = payloadOf(reply).getDeserializableData();
  ASSERT_EQ(items.size(), 1U);
  EXPECT_EQ(plainBytes(*items[0]), bytesOf("abc"));

  const Bytes empty = bytesOf({0, 0, 0, 0, 1, 0x00, 0x08, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF});
  EXPECT_EQ(plainBytes(*payloadOf(empty).getDeserializableData().at(0)), Bytes());
}

// --- A reply of every kind, in pieces and cut short ---

class GoldenReply : public ::testing::Test {
 protected:
  GoldenReply() {
    const Bytes message = bytesOf({0x0A, 0x00});  // a ResultPayload whose result is an empty Any
    reply_ =
        testing::container({message, testing::serializedAbc(), testing::replyPlain(bytesOf("plain")), bytesOf("file")});
  }

  // Reads the four items in turn; gives how many could be read and were right.
  std::size_t readItems(const OutputPayload& payload) const {
    const auto items = payload.getDeserializableData();
    EXPECT_EQ(items.size(), 4U);
    std::size_t done = 0;
    try {
      EXPECT_EQ(qxGetClass(items[0]->deserializeProtobuf().get()), qxClass::Struct);
      ++done;
      EXPECT_EQ(testing::bytesOfArray(items[1]->deserializeQxArray({}).get()), bytesOf("abc"));
      ++done;
      EXPECT_EQ(plainBytes(*items[2]), bytesOf("plain"));
      ++done;
      items[3]->deserializeToFile(directory_.file("out").u16string());
      EXPECT_EQ(testing::readFile(directory_.file("out")), bytesOf("file"));
      ++done;
    } catch (const IException&) {
      return done;  // the first item that is damaged ends the reading
    }
    return done;
  }

  Bytes reply_;
  testing::TemporaryDirectory directory_;
};

TEST_F(GoldenReply, ComesBackWholeInPiecesOfAnySize) {
  for (const std::size_t piece : {1, 2, 3, 4, 5, 8, 16, 1000}) {
    SCOPED_TRACE(piece);
    const auto watch = std::make_shared<StreamWatch>();
    EXPECT_EQ(readItems(payloadOf(reply_, watch, piece)), 4U);
    EXPECT_EQ(watch->delivered, reply_.size());
  }
}

TEST_F(GoldenReply, EveryTruncationGivesTheWholeItemsThenTheErrorOfTheNext) {
  // Where each item ends in the reply.
  const std::vector<std::size_t> ends{5 + 6, 5 + 6 + 20, 5 + 6 + 20 + 17, 5 + 6 + 20 + 17 + 8};
  ASSERT_EQ(reply_.size(), ends.back());
  for (std::size_t length = 5; length < reply_.size(); ++length) {
    SCOPED_TRACE(length);
    const Bytes cut(reply_.begin(), reply_.begin() + static_cast<std::ptrdiff_t>(length));
    std::size_t whole = 0;
    while (ends[whole] <= length)
      ++whole;
    EXPECT_EQ(readItems(payloadOf(cut)), whole);
  }
}

// --- There and back ---

RC_GTEST_PROP(OutputPayload, ItemsOfAnInputPayloadComeBackAsTheyWent,
              (const std::vector<std::vector<std::int16_t>>& columns)) {
  std::vector<qxArrayPtr> arrays;
  std::vector<std::shared_ptr<SerializableData>> sent;
  for (const auto& column : columns) {
    arrays.push_back(testing::columnOf<std::int16_t>(column));
    sent.push_back(SerializableData::createQxArray(arrays.back()));
  }
  testing::RecordingByteSink sink;
  InputPayload(sent).serialize(sink);

  const auto items = payloadOf(sink.bytes).getDeserializableData();
  RC_ASSERT(items.size() == arrays.size());
  for (std::size_t i = 0; i < items.size(); ++i)
    RC_ASSERT(qxEqual(items[i]->deserializeQxArray({}).get(), arrays[i].get()));
}

TEST(OutputPayload, ItemsOnTheBordersOfBlocksComeBackFromAnInputPayload) {
  const testing::TemporaryDirectory directory;
  for (const std::size_t nbytes : {0, 1, 32766, 32767, 32768, 65534, 65535, 70000}) {
    SCOPED_TRACE(nbytes);
    const Bytes content = testing::patternOf(nbytes);
    const qxArrayPtr array = testing::byteColumn(content);
    const InputPayload sent({SerializableData::createQxArray(array), SerializableData::createPlain(array),
                             SerializableData::createFile(testing::textOf(directory.write("in", content)))});
    testing::RecordingByteSink sink;
    sent.serialize(sink);

    const auto items = payloadOf(sink.bytes).getDeserializableData();
    ASSERT_EQ(items.size(), 3U);
    EXPECT_TRUE(qxEqual(items[0]->deserializeQxArray({}).get(), array.get()));
    // A plain item that goes out has no length in front, so only the file operation gives its bytes back.
    for (const std::size_t i : {1, 2}) {
      items[i]->deserializeToFile(directory.file("out").u16string());
      EXPECT_EQ(testing::readFile(directory.file("out")), content);
    }
  }
}

}  // namespace
}  // namespace parallel::spf::transport
