#include "transport/data/InputPayload.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <boost/numeric/conversion/cast.hpp>
#include <ios>
#include <limits>
#include <string>
#include <vector>

#include "transport/data/internal/containerHead.h"
#include "transport/data/testing/LogCapture.h"
#include "transport/data/testing/RecordingByteSink.h"
#include "transport/data/testing/TemporaryDirectory.h"
#include "transport/data/testing/arrays.h"
#include "transport/data/testing/framing.h"
#include "transport/streams/getSerializedBytes.h"

namespace parallel::spf::transport {
namespace {

using testing::Bytes;
using testing::bytesOf;
using testing::Recording;
using testing::RecordingByteSink;
using testing::serialized;

using Items = std::vector<std::shared_ptr<SerializableData>>;

std::shared_ptr<SerializableData> plain(const Bytes& content) {
  return SerializableData::createPlain(testing::byteColumn(content));
}

InputPayload payloadOf(const std::vector<Bytes>& contents) {
  Items items;
  for (const Bytes& content : contents)
    items.push_back(plain(content));
  return InputPayload(std::move(items));
}

// --- Golden bytes ---

TEST(InputPayload, WithoutItemsIsFiveZeroBytes) {
  const Recording sink = serialized(InputPayload({}));
  EXPECT_EQ(sink.bytes, bytesOf({0x00, 0x00, 0x00, 0x00, 0x00}));
  EXPECT_EQ(sink.sizes, (std::vector<std::size_t>{1, 4}));
}

TEST(InputPayload, TwoItemsFollowOneAnotherEachWithItsEndMark) {
  const Recording sink = serialized(payloadOf({bytesOf("abc"), bytesOf({0x01, 0x02})}));
  EXPECT_EQ(sink.bytes, bytesOf({0x00, 0x00, 0x00, 0x00, 0x02,           // version, two items
                                 0x00, 0x03, 'a', 'b', 'c', 0xFF, 0xFF,  // the first
                                 0x00, 0x02, 0x01, 0x02, 0xFF, 0xFF}));  // the second
}

TEST(InputPayload, EveryKindOfItemHasItsGoldenBytes) {
  const testing::TemporaryDirectory directory;
  const qxArrayPtr message = testing::messageStruct("parallel.zksmessages.Any");
  qxSetField(message.get(), 0, "type_url", qxCreateString(u"x/y"));
  const qxArrayPtr array = testing::byteColumn(bytesOf("abc"));
  const InputPayload payload({SerializableData::createProtobuf(message), SerializableData::createQxArray(array),
                              SerializableData::createPlain(array),
                              SerializableData::createFile(testing::textOf(directory.write("f", bytesOf("file"))))});
  EXPECT_EQ(serialized(payload).bytes,
            bytesOf({0x00, 0x00, 0x00, 0x00, 0x04,                                      // version, four items
                     0x00, 0x05, 0x0A, 0x03, 'x',  '/',  'y',  0xFF, 0xFF,              // message
                     0x00, 0x10, 0xD9, 0xD9, 0xF7, 0xD9, 0x04, 0x10, 0x82, 0x82, 0x03,  // array
                     0x01, 0xD8, 0x40, 0x43, 'a',  'b',  'c',  0xFF, 0xFF,              //
                     0x00, 0x03, 'a',  'b',  'c',  0xFF, 0xFF,                          // plain: no length
                     0x00, 0x04, 'f',  'i',  'l',  'e',  0xFF, 0xFF}));                 // file
}

TEST(InputPayload, ItemsOnTheBordersOfBlocksAreFramedExactly) {
  for (const std::size_t nbytes : {0, 1, 32766, 32767, 32768, 65534, 65535, 70000}) {
    SCOPED_TRACE(nbytes);
    const Bytes content = testing::patternOf(nbytes);
    EXPECT_EQ(serialized(payloadOf({content, content})).bytes, testing::container({content, content}));
  }
}

TEST(InputPayload, SerializingTwiceWritesTheSameTwice) {
  const InputPayload payload = payloadOf({bytesOf("abc"), testing::patternOf(40000)});
  EXPECT_EQ(serialized(payload).bytes, serialized(payload).bytes);
}

TEST(InputPayload, TakesTheVectorAway) {
  Items items{plain(bytesOf("abc"))};
  const InputPayload payload(std::move(items));
  EXPECT_TRUE(items.empty());  // NOLINT(bugprone-use-after-move): what is being tested
}

TEST(InputPayload, MovedFromIsEmpty) {
  InputPayload payload = payloadOf({bytesOf("abc")});
  const InputPayload taken = std::move(payload);
  EXPECT_EQ(serialized(payload).bytes, Bytes(5));  // NOLINT(bugprone-use-after-move): what is being tested
  EXPECT_EQ(serialized(taken).bytes, testing::container({bytesOf("abc")}));
}

RC_GTEST_PROP(InputPayload, AnyItemsGiveTheContainerWrittenPlainly, (const std::vector<std::string>& texts)) {
  std::vector<Bytes> contents;
  contents.reserve(texts.size());
  for (const std::string& text : texts)
    contents.push_back(bytesOf(text));
  RC_ASSERT(serialized(payloadOf(contents)).bytes == testing::container(contents));
}

// --- The number of items ---

TEST(ContainerHead, TheLargestCountIsWrittenInFourBytes) {
  RecordingByteSink sink;
  internal::writeContainerHead(sink, 0x7FFFFFFF);
  EXPECT_EQ(sink.bytes, bytesOf({0x00, 0x7F, 0xFF, 0xFF, 0xFF}));
}

TEST(ContainerHead, CountIsBigEndian) {
  RecordingByteSink sink;
  internal::writeContainerHead(sink, 0x01020304);
  EXPECT_EQ(sink.bytes, bytesOf({0x00, 0x01, 0x02, 0x03, 0x04}));
}

TEST(ContainerHead, LargerCountsOverflowAfterTheVersionByte) {
  for (const std::size_t count : {std::size_t{0x80000000}, std::numeric_limits<std::size_t>::max()}) {
    RecordingByteSink sink;
    try {
      internal::writeContainerHead(sink, count);
      FAIL() << count << " does not fit";
    } catch (const boost::numeric::positive_overflow& error) {
      EXPECT_STREQ(error.what(), "bad numeric conversion: positive overflow");
    }
    EXPECT_EQ(sink.bytes, bytesOf({0x00}));
  }
}

// --- Failures ---

TEST(InputPayload, SinkThatFailsAtAnyWriteGetsItsErrorBackAndKeepsWhatCameBefore) {
  const testing::TemporaryDirectory directory;
  const InputPayload payload(
      {plain(testing::patternOf(70000)), plain({}),
       SerializableData::createFile(testing::textOf(directory.write("f", testing::patternOf(70000)))),
       plain(bytesOf("abc"))});
  const Recording whole = serialized(payload);
  for (std::size_t failing = 1; failing <= whole.sizes.size(); ++failing) {
    SCOPED_TRACE(failing);
    RecordingByteSink sink(failing);
    EXPECT_THROW(payload.serialize(sink), testing::SinkFull);
    ASSERT_GE(sink.sizes.size(), failing - 1);
    std::size_t before = 0;
    for (std::size_t i = 0; i < failing - 1; ++i) {
      EXPECT_EQ(sink.sizes[i], whole.sizes[i]);
      before += sink.sizes[i];
    }
    EXPECT_TRUE(
        std::equal(sink.bytes.begin(), sink.bytes.begin() + static_cast<std::ptrdiff_t>(before), whole.bytes.begin()));
  }
  RecordingByteSink sink(whole.sizes.size() + 1);
  EXPECT_NO_THROW(payload.serialize(sink));
  EXPECT_EQ(sink.bytes, whole.bytes);
}

TEST(InputPayload, EncoderThatFailsLeavesItsFramingToTheDestructorAndEndsThePayload) {
  const auto failing = std::make_shared<SerializableData>(testing::byteColumn({}), [](const qxArray*, ByteSink& sink) {
    const Bytes begun = bytesOf("ab");
    sink.write(begun.data(), begun.size());
    throw testing::SinkFull();
  });
  const InputPayload payload({plain(bytesOf("x")), failing, plain(bytesOf("never"))});
  const testing::LogCapture log;
  RecordingByteSink sink;
  EXPECT_THROW(payload.serialize(sink), testing::SinkFull);
  EXPECT_EQ(sink.bytes, bytesOf({0x00, 0x00, 0x00, 0x00, 0x03,         // version, three items
                                 0x00, 0x01, 'x', 0xFF, 0xFF,          // the first
                                 0x00, 0x02, 'a', 'b', 0xFF, 0xFF}));  // what the second had written
  EXPECT_EQ(log.texts(8),
            (std::vector<std::string>{"BlockedDataByteSink not closed manually. Closing on destruction."}));
}

TEST(InputPayload, MissingFileShowsOnlyWhenSerialized) {
  const testing::TemporaryDirectory directory;
  const InputPayload payload({SerializableData::createFile(testing::textOf(directory.file("missing")))});
  RecordingByteSink sink;
  EXPECT_THROW(payload.serialize(sink), std::ios_base::failure);
}

// --- Size hint ---

TEST(InputPayload, SizeHintIsEnoughForWhatIsKnownAndLittleMore) {
  const testing::TemporaryDirectory directory;
  for (const std::size_t nbytes : {0, 1, 32766, 32767, 32768, 65534, 70000, 1000000}) {
    SCOPED_TRACE(nbytes);
    const Bytes content = testing::patternOf(nbytes);
    const InputPayload payload({plain(content), SerializableData::createQxArray(testing::byteColumn(content)),
                                SerializableData::createFile(testing::textOf(directory.write("f", content))),
                                plain({})});
    const std::size_t actual = serialized(payload).bytes.size();
    EXPECT_GE(payload.serializedSizeHint(), actual);
    EXPECT_LE(payload.serializedSizeHint(), actual + 128);
  }
}

TEST(InputPayload, SizeHintOfTheEmptyPayloadIsItsHead) {
  EXPECT_EQ(InputPayload({}).serializedSizeHint(), 5U);
}

TEST(InputPayload, SerializedBytesAreReservedFromTheHint) {
  const InputPayload payload = payloadOf({Bytes(1000000)});
  const std::vector<char> bytes = getSerializedBytes<InputPayload, char>(payload);
  EXPECT_GE(bytes.capacity(), bytes.size());
  EXPECT_LE(bytes.capacity(), payload.serializedSizeHint()) << "grown step by step instead";
}

}  // namespace
}  // namespace parallel::spf::transport
