#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "platform/errors/IException.h"
#include "platform/interpreter/objectHooks.h"
#include "transport/data/SerializableData.h"
#include "transport/data/testing/RecordingByteSink.h"
#include "transport/data/testing/arrays.h"

namespace parallel::spf::transport {
namespace {

using testing::RecordingByteSink;

testing::Bytes serializedForm(const qxArray* array) {
  const qxArrayPtr bytes(qxSerializeEx(array, 32));
  return testing::bytesOfArray(bytes.get());
}

// A class whose objects are saved as the number that they hold.
class ArrayItemWithObjects : public ::testing::Test {
 protected:
  static constexpr const char* kClass = "test.Counter";

  ~ArrayItemWithObjects() override { interpreter::unregisterObjectForm(kClass); }

  static void registerForm(std::function<qxArrayPtr(const std::shared_ptr<void>&)> save) {
    interpreter::ObjectForm form;
    form.save = std::move(save);
    form.load = [](const qxArray*) { return std::shared_ptr<void>(); };
    interpreter::registerObjectForm(kClass, std::move(form));
  }

  static qxArrayPtr object() { return qxCreateObject(kClass, std::make_shared<int>(7)); }
};

TEST(ArrayItem, ByteColumnGivesTheGoldenBytesInOneWrite) {
  RecordingByteSink sink;
  SerializableData::createQxArray(testing::byteColumn(testing::bytesOf("abc")))->serialize(sink);
  EXPECT_EQ(sink.bytes, testing::serializedAbc());
  EXPECT_EQ(sink.sizes, (std::vector<std::size_t>{16}));
}

TEST(ArrayItem, EveryClassGivesTheHostsSerialisedForm) {
  qxArrayPtr list = qxCreateListArray(std::array<std::size_t, 2>{1, 2});
  qxSetListElement(list.get(), 0, qxCreateString(u"text"));
  const qxArrayPtr scalar = qxCreateScalar(1.5);
  const qxArrayPtr structure = testing::messageStruct("anything");
  const qxArrayPtr complex = qxCreateNumericArray(std::array<std::size_t, 3>{2, 0, 2}, qxClass::Float32, true);
  for (const qxArray* array : {list.get(), scalar.get(), structure.get(), complex.get()}) {
    RecordingByteSink sink;
    SerializableData::createQxArray(array)->serialize(sink);
    EXPECT_EQ(sink.bytes, serializedForm(array));
    EXPECT_EQ(sink.sizes.size(), 1U);
  }
}

TEST_F(ArrayItemWithObjects, ObjectsGoOutInTheirSavedForm) {
  registerForm(
      [](const std::shared_ptr<void>& native) { return qxCreateScalar(*std::static_pointer_cast<int>(native)); });
  qxArrayPtr list = qxCreateListArray(std::array<std::size_t, 2>{1, 1});
  qxSetListElement(list.get(), 0, object());

  RecordingByteSink sink;
  SerializableData::createQxArray(list)->serialize(sink);

  const qxArrayPtr saved(inRunSaveObjFunction(list.get()));
  ASSERT_NE(saved.get(), list.get());
  EXPECT_EQ(sink.bytes, serializedForm(saved.get()));
  EXPECT_EQ(qxGetClass(qxGetListElement(list.get(), 0)), qxClass::Object) << "the item's array must stay as it is";
}

TEST_F(ArrayItemWithObjects, ErrorOfTheSaveFunctionPassesUnchanged) {
  struct SaveRefused {};
  registerForm([](const std::shared_ptr<void>&) -> qxArrayPtr { throw SaveRefused(); });
  RecordingByteSink sink;
  EXPECT_THROW(SerializableData::createQxArray(object())->serialize(sink), SaveRefused);
  EXPECT_TRUE(sink.sizes.empty());
}

TEST_F(ArrayItemWithObjects, ObjectOfAnUnknownClassPassesTheHostsError) {
  RecordingByteSink sink;
  try {
    SerializableData::createQxArray(object())->serialize(sink);
    FAIL() << "the class has not said how it is saved";
  } catch (const IException& error) {
    EXPECT_EQ(error.identifier(), "host:interpreter:CannotSave");
  }
}

TEST_F(ArrayItemWithObjects, ErrorOfTheSinkPassesAndTheItemServesAgain) {
  registerForm([](const std::shared_ptr<void>&) { return qxCreateScalar(7); });
  const auto item = SerializableData::createQxArray(object());
  RecordingByteSink full(1);
  EXPECT_THROW(item->serialize(full), testing::SinkFull);
  RecordingByteSink sink;
  item->serialize(sink);
  EXPECT_FALSE(sink.bytes.empty());
}

}  // namespace
}  // namespace parallel::spf::transport
