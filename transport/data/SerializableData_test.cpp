#include "transport/data/SerializableData.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/errors/IException.h"
#include "platform/errors/InternalException.h"
#include "platform/tova/StdShareable.h"
#include "transport/data/testing/RecordingByteSink.h"
#include "transport/data/testing/arrays.h"

namespace parallel::spf::transport {
namespace {

using testing::Bytes;
using testing::bytesOf;
using testing::Recording;
using testing::RecordingByteSink;
using testing::serialized;

using Factory = std::shared_ptr<SerializableData> (*)(const tova::factory::qxConstArrayProxy&);

// An array over memory of the test's own, which tells when it is released.
qxArrayPtr adoptedBytes(Bytes& memory, std::function<void()> release) {
  return qxAdoptArray(std::array<std::size_t, 2>{memory.size(), 1}, qxClass::Uint8, false, memory.data(), true,
                      std::move(release));
}

// --- What all kinds have in common ---

static_assert(!std::is_copy_constructible_v<SerializableData> && !std::is_copy_assignable_v<SerializableData>);
static_assert(std::is_base_of_v<tova::factory::full::StdShareable, SerializableData>);

TEST(SerializableData, FactoriesLinkTheItemToItself) {
  const qxArrayPtr array = testing::byteColumn(bytesOf("abc"));
  for (const Factory create : {SerializableData::createProtobuf, SerializableData::createQxArray,
                               SerializableData::createPlain, SerializableData::createFile}) {
    const std::shared_ptr<SerializableData> item = create(array);
    EXPECT_EQ(item->shared_from_this(), item);
  }
}

TEST(SerializableData, FactoriesDoNotLookAtTheArray) {
  const qxArrayPtr list = qxCreateListArray(std::array<std::size_t, 2>{2, 2});
  for (const Factory create : {SerializableData::createProtobuf, SerializableData::createQxArray,
                               SerializableData::createPlain, SerializableData::createFile}) {
    EXPECT_NO_THROW(create(list));
    EXPECT_NO_THROW(create(qxArrayPtr()));
  }
}

TEST(SerializableData, ItemSeesTheValueOfItsCreation) {
  qxArrayPtr array = testing::byteColumn(bytesOf("abc"));
  const auto item = SerializableData::createPlain(array);
  qxGetWritableElements<std::uint8_t>(array.get())[0] = 'z';
  EXPECT_EQ(serialized(*item).bytes, bytesOf("abc"));
}

TEST(SerializableData, ItemOutlivesTheCallersArray) {
  qxArrayPtr array = testing::byteColumn(bytesOf("abc"));
  const auto item = SerializableData::createPlain(array);
  array.reset();
  EXPECT_EQ(serialized(*item).bytes, bytesOf("abc"));
}

TEST(SerializableData, ItemTakesAShareAndNotACopyOfTheData) {
  Bytes memory = bytesOf("abc");
  const qxArrayPtr array = adoptedBytes(memory, [] {});
  const auto item = SerializableData::createPlain(array);
  memory[0] = std::byte{'z'};
  EXPECT_EQ(serialized(*item).bytes, bytesOf("zbc"));
}

TEST(SerializableData, DestructionEndsTheEncoderThenTheShareOfTheArray) {
  std::vector<std::string> ended;
  Bytes memory = bytesOf("abc");
  qxArrayPtr array = adoptedBytes(memory, [&] { ended.emplace_back("array"); });
  auto token = std::shared_ptr<void>(nullptr, [&](void*) { ended.emplace_back("encoder"); });
  auto item = std::make_shared<SerializableData>(array, [token](const qxArray*, ByteSink&) {});
  token.reset();
  array.reset();
  EXPECT_TRUE(ended.empty());
  item.reset();
  EXPECT_EQ(ended, (std::vector<std::string>{"encoder", "array"}));
}

TEST(SerializableData, SerializeCallsTheEncoderWithTheHeldArrayAndTheSink) {
  const qxArrayPtr array = testing::byteColumn(bytesOf("abc"));
  const qxArray* seenArray = nullptr;
  const ByteSink* seenSink = nullptr;
  const SerializableData item(array, [&](const qxArray* held, ByteSink& sink) {
    seenArray = held;
    seenSink = &sink;
  });
  const RecordingByteSink sink;
  item.serialize(const_cast<RecordingByteSink&>(sink));
  EXPECT_TRUE(qxEqual(seenArray, array.get()));
  EXPECT_EQ(seenSink, &sink);
}

TEST(SerializableData, EmptyEncoderThrowsBadFunctionCall) {
  const SerializableData item(testing::byteColumn({}), nullptr);
  RecordingByteSink sink;
  EXPECT_THROW(item.serialize(sink), std::bad_function_call);
}

TEST(SerializableData, ItemOfNoArrayThrowsWhenSerialized) {
  const auto item = SerializableData::createPlain(qxArrayPtr());
  RecordingByteSink sink;
  EXPECT_THROW(item->serialize(sink), InternalException);
  EXPECT_EQ(item->serializedSizeHint(), 0U);
}

// --- Plain ---

TEST(PlainItem, WritesTheBytesOfAByteColumnInOneWrite) {
  const Recording sink = serialized(*SerializableData::createPlain(testing::byteColumn(bytesOf("abcde"))));
  EXPECT_EQ(sink.bytes, bytesOf({0x61, 0x62, 0x63, 0x64, 0x65}));
  EXPECT_EQ(sink.sizes, (std::vector<std::size_t>{5}));
}

TEST(PlainItem, ThreeWideNumbersGiveTheFirstThreeBytesOfTheFirst) {
  const double first = -123.456;
  const Recording sink = serialized(*SerializableData::createPlain(testing::columnOf<double>({first, 2, 3})));
  const auto* raw = reinterpret_cast<const std::byte*>(&first);
  EXPECT_EQ(sink.bytes, Bytes(raw, raw + 3));
  EXPECT_EQ(sink.sizes, (std::vector<std::size_t>{3}));
}

TEST(PlainItem, CountsElementsWhateverTheClassAndShape) {
  const qxArrayPtr text = qxCreateString(u"ab");
  EXPECT_EQ(serialized(*SerializableData::createPlain(text)).bytes, bytesOf({0x61, 0x00}));
  const qxArrayPtr cube = qxCreateNumericArray(std::array<std::size_t, 3>{2, 3, 4}, qxClass::Int8);
  EXPECT_EQ(serialized(*SerializableData::createPlain(cube)).bytes, Bytes(24));
  const qxArrayPtr complex = qxCreateNumericArray(std::array<std::size_t, 2>{5, 1}, qxClass::Uint8, true);
  EXPECT_EQ(serialized(*SerializableData::createPlain(complex)).bytes, Bytes(5));
  const qxArrayPtr boolean = qxCreateBoolean(true);
  EXPECT_EQ(serialized(*SerializableData::createPlain(boolean)).bytes, bytesOf({1}));
}

TEST(PlainItem, EmptyArrayGivesOneEmptyWrite) {
  for (const qxArrayPtr& empty :
       {testing::byteColumn({}), qxCreateString(u""), qxCreateListArray(std::array<std::size_t, 2>{0, 3})}) {
    const Recording sink = serialized(*SerializableData::createPlain(empty));
    EXPECT_TRUE(sink.bytes.empty());
    EXPECT_EQ(sink.sizes, (std::vector<std::size_t>{0}));
  }
}

TEST(PlainItem, ArrayWithoutBytesIsAWrongClassWhenSerialized) {
  const qxArrayPtr list = qxCreateListArray(std::array<std::size_t, 2>{2, 1});
  const auto item = SerializableData::createPlain(list);
  RecordingByteSink sink;
  try {
    item->serialize(sink);
    FAIL() << "a list has no bytes";
  } catch (const IException& error) {
    EXPECT_EQ(error.identifier(), "host:array:WrongClass");
  }
  EXPECT_TRUE(sink.sizes.empty());
}

TEST(PlainItem, ErrorOfTheSinkPassesAndTheItemServesAgain) {
  const auto item = SerializableData::createPlain(testing::byteColumn(bytesOf("abc")));
  RecordingByteSink full(1);
  EXPECT_THROW(item->serialize(full), testing::SinkFull);
  EXPECT_EQ(serialized(*item).bytes, bytesOf("abc"));
}

// --- Twice the same, and sizes ---

TEST(SerializableData, SerializingTwiceWritesTheSameTwice) {
  const qxArrayPtr array = testing::columnOf<float>({1, 2, 3});
  const qxArrayPtr message = testing::messageStruct("parallel.zksmessages.Any");
  qxSetField(message.get(), 0, "type_url", qxCreateString(u"x/y"));
  for (const auto& item : {SerializableData::createPlain(array), SerializableData::createQxArray(array),
                           SerializableData::createProtobuf(message)}) {
    const Recording first = serialized(*item);
    const Recording second = serialized(*item);
    EXPECT_FALSE(first.bytes.empty());
    EXPECT_EQ(first.bytes, second.bytes);
    EXPECT_EQ(first.sizes, second.sizes);
  }
}

TEST(SerializableData, SizeHintOfPlainIsTheNumberOfBytes) {
  for (const std::size_t nbytes : {0, 1, 70000})
    EXPECT_EQ(SerializableData::createPlain(testing::byteColumn(Bytes(nbytes)))->serializedSizeHint(), nbytes);
}

TEST(SerializableData, SizeHintOfNumericArraysIsEnoughAndLittleMore) {
  const std::vector<std::size_t> deep{2, 1, 3, 1, 2, 1, 2};
  for (const qxArrayPtr& array :
       {testing::columnOf<double>({}), testing::columnOf<double>({1}), testing::byteColumn(Bytes(70000)),
        qxCreateNumericArray(deep, qxClass::Int16), qxCreateNumericArray(deep, qxClass::Float64, true)}) {
    const auto item = SerializableData::createQxArray(array);
    const std::size_t nbytes = serialized(*item).bytes.size();
    EXPECT_GE(item->serializedSizeHint(), nbytes);
    EXPECT_LE(item->serializedSizeHint(), nbytes + 200);
  }
}

TEST(SerializableData, SizeHintOfMessagesAndOwnEncodersIsUnknown) {
  EXPECT_EQ(SerializableData::createProtobuf(testing::byteColumn(Bytes(10)))->serializedSizeHint(), 0U);
  const SerializableData own(testing::byteColumn(Bytes(10)), [](const qxArray*, ByteSink&) {});
  EXPECT_EQ(own.serializedSizeHint(), 0U);
}

}  // namespace
}  // namespace parallel::spf::transport
