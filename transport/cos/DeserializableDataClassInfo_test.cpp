#include "transport/cos/DeserializableDataClassInfo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>

#include "platform/tova/testing/CountingAllocator.h"
#include "transport/cos/initCosDeserializableData.h"
#include "transport/cos/testing/HostClasses.h"
#include "transport/data/testing/TemporaryDirectory.h"
#include "transport/data/testing/arrays.h"

namespace parallel::spf::transport {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using tova::testing::identifiedError;

using testing::bytesOf;

// A plain item as a reply carries it.
testing::Bytes plainAbc() {
  return bytesOf({0, 0, 0, 0, 0, 0, 0, 3, 'a', 'b', 'c'});
}

class DeserializableDataClass : public testing::HostClasses {};

TEST_F(DeserializableDataClass, HasFiveInstanceMethodsTwoOfThemOfOneName) {
  const tova::ClassDescription cls = tova::describeClass(kDeserializable);
  EXPECT_EQ(cls.name, "DeserializableData");
  EXPECT_EQ(cls.description, "Hold data for deserialization");
  EXPECT_TRUE(cls.isHandle);
  EXPECT_FALSE(cls.hasConstructor);
  ASSERT_EQ(cls.superclasses.size(), 1U);
  EXPECT_EQ(cls.superclasses[0].name, "tessel.mixin.Heterogeneous");
  EXPECT_FALSE(cls.superclasses[0].isHidden);
  EXPECT_TRUE(cls.superclasses[0].inheritsMethods);
  EXPECT_TRUE(cls.superclasses[0].isRegistered);
  std::vector<std::string> signatures;
  std::vector<unsigned> flags;
  for (const tova::MethodDescription& method : cls.methods) {
    EXPECT_FALSE(method.isStatic) << method.name;
    EXPECT_EQ(method.description, "") << method.name;
    signatures.push_back(method.signature);
    flags.push_back(method.flags);
  }
  EXPECT_THAT(signatures,
              ElementsAre("any = deserializeProtobuf()", "any = deserializeQxArray(any)", "any = deserializeQxArray()",
                          "any = deserializePlain()", "deserializeToFile(TovaFactoryString scalar)"));
  EXPECT_THAT(flags, ElementsAre(0U, 0U, 0x1000U, 0U, 0U));
  EXPECT_THAT(cls.methods.back().outputs, ElementsAre("void"));
}

TEST_F(DeserializableDataClass, SelfIsOfTheClass) {
  const qxArrayPtr handle = incoming({});
  const auto cls = tova::factory::basic::BindingRegistry::classOf(handle.get());
  for (const auto& method : cls->methods())
    EXPECT_EQ(method->signature().self, kDeserializable) << method->name();
}

TEST_F(DeserializableDataClass, DescriptionAnswersAsAHandleClassWithoutAConstructor) {
  const DeserializableDataClassInfo info;
  EXPECT_STREQ(info.name(), "DeserializableData");
  EXPECT_STREQ(info.description(), "Hold data for deserialization");
  EXPECT_STREQ(info.detailedDescription(), "Hold data for deserialization");
  EXPECT_EQ(info.createConstructor(), nullptr);
  EXPECT_TRUE(info.isHandle());
}

TEST_F(DeserializableDataClass, ItemWithoutBytesRaisesWithoutADefaultAndReturnsADefault) {
  EXPECT_THAT(identifiedError([] { call(incoming({}), "deserializeQxArray"); }),
              StartsWith("parallel:cluster:DeserializeQxArrayError"));
  const qxArrayPtr fallback = qxCreateString(u"more than one element");
  const auto outputs = call(incoming({}), "deserializeQxArray", 1, {fallback.get()});
  ASSERT_EQ(outputs.size(), 1U);
  EXPECT_TRUE(qxEqual(outputs[0].get(), fallback.get()));
  EXPECT_EQ(qxGetData(outputs[0].get()), qxGetData(fallback.get())) << "a share, not a copy";
}

TEST_F(DeserializableDataClass, HandleMayBeTheDefault) {
  const qxArrayPtr fallback = incoming({});
  const auto outputs = call(incoming({}), "deserializeQxArray", 1, {fallback.get()});
  EXPECT_TRUE(qxEqual(outputs.at(0).get(), fallback.get()));
}

TEST_F(DeserializableDataClass, BytesAreReadAsAnArrayWithAndWithoutADefault) {
  const qxArrayPtr value = qxCreateStringUtf8("value");
  const testing::Bytes bytes = bytesWrittenBy(*SerializableData::createQxArray(value));
  const qxArrayPtr fallback = qxCreateScalar(12);
  EXPECT_TRUE(qxEqual(call(incoming(bytes), "deserializeQxArray").at(0).get(), value.get()));
  EXPECT_TRUE(qxEqual(call(incoming(bytes), "deserializeQxArray", 1, {fallback.get()}).at(0).get(), value.get()));
}

TEST_F(DeserializableDataClass, PlainAndProtobufItemsAreRead) {
  EXPECT_EQ(testing::bytesOfArray(call(incoming(plainAbc()), "deserializePlain").at(0).get()),
            bytesOf({'a', 'b', 'c'}));
  EXPECT_EQ(qxGetClass(call(incoming({}), "deserializeProtobuf").at(0).get()), qxClass::Struct);
}

TEST_F(DeserializableDataClass, FileIsWrittenAndThereIsNoOutput) {
  const testing::TemporaryDirectory directory;
  const qxArrayPtr path = qxCreateStringUtf8(directory.file("\xC3\xA4.bin").string());
  EXPECT_TRUE(call(incoming(bytesOf({1, 2})), "deserializeToFile", 0, {path.get()}).empty());
  EXPECT_EQ(testing::readFile(directory.file("\xC3\xA4.bin")), bytesOf({1, 2}));
}

TEST_F(DeserializableDataClass, ErrorsOfTheMethodsPassUnchanged) {
  const testing::TemporaryDirectory directory;
  const qxArrayPtr path = testing::textOf(directory.file("no/such/directory"));
  EXPECT_THAT(identifiedError([] { call(incoming(bytesOf({1})), "deserializePlain"); }),
              StartsWith("parallel:cluster:DeserializePlainError"));
  EXPECT_THAT(identifiedError([&] { call(incoming({}), "deserializeToFile", 0, {path.get()}); }),
              StartsWith("parallel:cluster:DeserializeToFileError"));
}

TEST_F(DeserializableDataClass, SecondCallFindsTheItemRead) {
  const testing::TemporaryDirectory directory;
  const qxArrayPtr path = testing::textOf(directory.file("empty.bin"));
  const qxArrayPtr fallback = qxCreateScalar(12);
  const qxArrayPtr item = incoming(plainAbc());
  call(item, "deserializePlain");
  EXPECT_THAT(identifiedError([&] { call(item, "deserializePlain"); }),
              StartsWith("parallel:cluster:DeserializePlainError"));
  EXPECT_THAT(identifiedError([&] { call(item, "deserializeQxArray"); }),
              StartsWith("parallel:cluster:DeserializeQxArrayError"));
  EXPECT_TRUE(qxEqual(call(item, "deserializeQxArray", 1, {fallback.get()}).at(0).get(), fallback.get()));
  EXPECT_EQ(qxGetClass(call(item, "deserializeProtobuf").at(0).get()), qxClass::Struct);
  call(item, "deserializeToFile", 0, {path.get()});
  EXPECT_THAT(testing::readFile(directory.file("empty.bin")), IsEmpty());
}

TEST_F(DeserializableDataClass, FileNameMustBeOneLineOfText) {
  const qxArrayPtr number = qxCreateScalar(1);
  EXPECT_EQ(identifiedError([&] { call(incoming({}), "deserializeToFile", 0, {number.get()}); }),
            "host:classes:WrongArgumentType: parallel.internal.cluster.DeserializableData.deserializeToFile expects "
            "TovaFactoryString scalar as input 1; 1-by-1 float64 was given.");
}

TEST_F(DeserializableDataClass, WrongCountsNameTheCountsOfAllOverloads) {
  const qxArrayPtr value = qxCreateScalar(1);
  EXPECT_EQ(identifiedError([&] {
              call(incoming({}), "deserializeQxArray", 1, {value.get(), value.get()});
            }),
            "host:classes:TooManyInputs: Too many inputs for "
            "parallel.internal.cluster.DeserializableData.deserializeQxArray: it takes 0 or 1, and 2 were given.");
  EXPECT_THAT(identifiedError([&] { call(incoming({}), "deserializePlain", 1, {value.get()}); }),
              StartsWith("host:classes:TooManyInputs"));
  EXPECT_THAT(identifiedError([] { call(incoming({}), "deserializeToFile", 0); }),
              StartsWith("host:classes:NotEnoughInputs"));
}

TEST_F(DeserializableDataClass, ItemLivesAsLongAsTheReplysListOrAHandleSharesIt) {
  auto item = std::make_shared<DeserializableData>(std::make_shared<ByteVectorByteStream>(plainAbc()));
  const std::weak_ptr<DeserializableData> watch = item;
  qxArrayPtr handle = tova::factory::handleOf(item);
  item.reset();
  EXPECT_EQ(call(handle, "deserializePlain").size(), 1U);
  handle.reset();
  EXPECT_TRUE(watch.expired());
}

TEST_F(DeserializableDataClass, EveryFailedAllocationLeavesNothingBehind) {
  tova::COSNamespace* const place = tova::omGetNamespace("place");
  tova::testing::CountingAllocator counting;
  for (long step = 1; step <= 6; ++step) {  // the description and five methods
    counting.failAt(step);
    EXPECT_THROW(initCosDeserializableData(place), std::bad_alloc) << step;
    EXPECT_EQ(counting.outstanding(), 0U) << step;
    EXPECT_TRUE(tova::listClasses("place").empty()) << step;
  }
  counting.failAt(7);
  initCosDeserializableData(place);
  EXPECT_EQ(counting.outstanding(), 6U);
  endScope();
  EXPECT_EQ(counting.outstanding(), 0U);
}

}  // namespace
}  // namespace parallel::spf::transport
