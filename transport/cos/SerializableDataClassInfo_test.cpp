#include "transport/cos/SerializableDataClassInfo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <ios>
#include <new>
#include <type_traits>

#include "platform/tova/testing/CountingAllocator.h"
#include "transport/cos/initCosSerializableData.h"
#include "transport/cos/testing/HostClasses.h"
#include "transport/data/InputPayload.h"
#include "transport/data/testing/TemporaryDirectory.h"
#include "transport/data/testing/arrays.h"

namespace parallel::spf::transport {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;
using tova::testing::identifiedError;

class SerializableDataClass : public testing::HostClasses {};

static_assert(std::is_base_of_v<tova::factory::TovaFactoryClassInfo, SerializableDataClassInfo>);
static_assert(std::is_base_of_v<tova::factory::HandleClassInfo<SerializableData, false>, SerializableDataClassInfo>);
static_assert(std::is_base_of_v<tova::COSClassInfo, SerializableDataClassInfo>);

TEST_F(SerializableDataClass, HasFourStaticMethodsOfOneInputAndOneOutput) {
  const tova::ClassDescription cls = tova::describeClass(kSerializable);
  EXPECT_EQ(cls.name, "SerializableData");
  EXPECT_EQ(cls.description, "Hold data for serialization");
  EXPECT_TRUE(cls.isHandle);
  EXPECT_FALSE(cls.hasConstructor);
  EXPECT_TRUE(cls.superclasses.empty());
  std::vector<std::string> names;
  for (const tova::MethodDescription& method : cls.methods) {
    names.push_back(method.name);
    EXPECT_TRUE(method.isStatic) << method.name;
    EXPECT_EQ(method.flags, 0x8U) << method.name;
    EXPECT_EQ(method.description, "") << method.name;
    EXPECT_THAT(method.inputs, ElementsAre("any")) << method.name;
    EXPECT_THAT(method.outputs, ElementsAre(kSerializable)) << method.name;
  }
  EXPECT_THAT(names, ElementsAre("createProtobuf", "createQxArray", "createPlain", "createFile"));
}

TEST_F(SerializableDataClass, DescriptionAnswersAsAHandleClassWithoutAConstructor) {
  const SerializableDataClassInfo info;
  EXPECT_STREQ(info.name(), "SerializableData");
  EXPECT_STREQ(info.description(), "Hold data for serialization");
  EXPECT_STREQ(info.detailedDescription(), "Hold data for serialization");
  EXPECT_EQ(info.version(), 0);
  EXPECT_EQ(info.createConstructor(), nullptr);
  EXPECT_TRUE(info.isHandle());
  EXPECT_FALSE(info.isAbstract());
  EXPECT_FALSE(info.isSealed());
  EXPECT_FALSE(info.isHidden());
}

TEST_F(SerializableDataClass, EachMethodMakesAnItemOfItsKind) {
  testing::TemporaryDirectory directory;
  const testing::Bytes content{std::byte{7}, std::byte{8}};
  const qxArrayPtr bytes = testing::byteColumn(content);
  const qxArrayPtr path = testing::textOf(directory.write("data.bin", content));
  const qxArrayPtr message = testing::messageStruct("parallel.zksmessages.Missing");
  const auto encoded = [](const char* method, const qxArrayPtr& value) {
    const auto outputs = callStatic(method, 1, {value.get()});
    return bytesWrittenBy(*tova::factory::nativeOf<SerializableData>(outputs.at(0).get()));
  };
  EXPECT_EQ(encoded("createPlain", bytes), content);
  EXPECT_EQ(encoded("createFile", path), content);
  EXPECT_EQ(encoded("createProtobuf", message), bytesWrittenBy(*SerializableData::createProtobuf(message)));
  EXPECT_EQ(encoded("createQxArray", bytes), bytesWrittenBy(*SerializableData::createQxArray(bytes)));
}

TEST_F(SerializableDataClass, MissingFileShowsOnlyWhenThePayloadIsSerialised) {
  const testing::TemporaryDirectory directory;
  const qxArrayPtr path = testing::textOf(directory.file("missing.bin"));
  const auto outputs = callStatic("createFile", 1, {path.get()});
  ASSERT_EQ(outputs.size(), 1U);
  EXPECT_TRUE(tova::isValidHandle(outputs[0].get()));
  const InputPayload payload({tova::factory::nativeOf<SerializableData>(outputs[0].get())});
  EXPECT_THROW(bytesWrittenBy(payload), std::ios_base::failure);
}

TEST_F(SerializableDataClass, HandleIsMadeEvenIfNoOutputIsAskedFor) {
  const qxArrayPtr value = qxCreateScalar(1);
  for (const char* method : {"createProtobuf", "createQxArray", "createPlain", "createFile"}) {
    const auto outputs = callStatic(method, 0, {value.get()});
    ASSERT_EQ(outputs.size(), 1U) << method;
    EXPECT_EQ(tova::describeClassOf(outputs[0].get()).fullName, kSerializable) << method;
    EXPECT_NE(tova::factory::nativeOf<SerializableData>(outputs[0].get()), nullptr) << method;
  }
}

TEST_F(SerializableDataClass, WrongCountsAreTheClassSystemsErrors) {
  const qxArrayPtr value = qxCreateScalar(1);
  EXPECT_EQ(
      identifiedError([] { callStatic("createFile", 1, {}); }),
      "host:classes:NotEnoughInputs: Not enough inputs for parallel.internal.cluster.SerializableData.createFile: "
      "it takes 1, and 0 were given.");
  EXPECT_THAT(identifiedError([&] {
                callStatic("createFile", 1, {value.get(), value.get()});
              }),
              StartsWith("host:classes:TooManyInputs"));
  EXPECT_THAT(identifiedError([&] { callStatic("createFile", 2, {value.get()}); }),
              StartsWith("host:classes:TooManyOutputs"));
}

TEST_F(SerializableDataClass, HandleOfARetractedItemIsRefusedAsAnInput) {
  const qxArrayPtr value = qxCreateScalar(1);
  const auto item = SerializableData::createPlain(value);
  const qxArrayPtr handle = tova::factory::handleOf(item);
  EXPECT_TRUE(tova::isValidHandle(callStatic("createQxArray", 1, {handle.get()}).at(0).get()));
  tova::factory::full::retract(item.get());
  EXPECT_THAT(identifiedError([&] { callStatic("createQxArray", 1, {handle.get()}); }),
              StartsWith("host:classes:InvalidHandle"));
}

TEST_F(SerializableDataClass, ItemLivesAsLongAsHandlesOrPayloadsShareIt) {
  const qxArrayPtr value = qxCreateScalar(1);
  auto outputs = callStatic("createPlain", 1, {value.get()});
  std::weak_ptr<SerializableData> watch = tova::factory::nativeOf<SerializableData>(outputs[0].get());
  EXPECT_EQ(watch.use_count(), 1);
  auto payload = std::make_unique<InputPayload>(std::vector{watch.lock()});
  outputs.clear();
  EXPECT_EQ(tova::factory::basic::BindingRegistry::size(), 0U);
  EXPECT_EQ(watch.use_count(), 1);
  payload.reset();
  EXPECT_TRUE(watch.expired());
}

TEST_F(SerializableDataClass, EveryFailedAllocationLeavesNothingBehind) {
  endScope();
  scope = std::make_unique<tova::UserScope>();
  entry = std::make_unique<tova::UserScopeEntry>(*scope);
  tova::COSNamespace* const place = tova::omGetNamespace("place");
  tova::testing::CountingAllocator counting;
  for (long step = 1; step <= 5; ++step) {  // the description and four methods
    counting.failAt(step);
    EXPECT_THROW(initCosSerializableData(place), std::bad_alloc) << step;
    EXPECT_EQ(counting.outstanding(), 0U) << step;
    EXPECT_TRUE(tova::listClasses("place").empty()) << step;
  }
  counting.failAt(6);
  initCosSerializableData(place);
  EXPECT_EQ(counting.outstanding(), 5U);
  endScope();
  EXPECT_EQ(counting.outstanding(), 0U);
}

}  // namespace
}  // namespace parallel::spf::transport
