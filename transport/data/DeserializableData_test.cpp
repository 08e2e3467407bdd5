#include "transport/data/DeserializableData.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/interpreter/objectHooks.h"
#include "platform/interrupt/utInterruptState.h"
#include "transport/data/testing/LogCapture.h"
#include "transport/data/testing/RecordingByteSink.h"
#include "transport/data/testing/TemporaryDirectory.h"
#include "transport/data/testing/arrays.h"
#include "transport/data/testing/framing.h"
#include "transport/data/testing/streams.h"

namespace parallel::spf::transport {
namespace {

using testing::Bytes;
using testing::bytesOf;
using testing::LogCapture;
using testing::PiecewiseByteStream;
using testing::StreamWatch;
using tova::factory::qxArrayProxy;

static_assert(!std::is_copy_constructible_v<DeserializableData> && !std::is_copy_assignable_v<DeserializableData>);
static_assert(std::is_base_of_v<tova::factory::full::StdShareable, DeserializableData>);

std::shared_ptr<DeserializableData> itemOf(const Bytes& content,
                                           std::shared_ptr<StreamWatch> watch = std::make_shared<StreamWatch>(),
                                           std::size_t pieceBytes = 16384) {
  return std::make_shared<DeserializableData>(
      std::make_shared<PiecewiseByteStream>(content, pieceBytes, std::move(watch)));
}

Bytes plainOf(DeserializableData& item) {
  const qxArrayProxy array = item.deserializePlain();
  EXPECT_EQ(qxGetClass(array.get()), qxClass::Uint8);
  EXPECT_FALSE(qxIsComplex(array.get()));
  const qxDimensions dimensions = qxGetDimensions(array.get());
  EXPECT_EQ(dimensions.size(), 2U);
  EXPECT_EQ(dimensions[1], 1U);
  return testing::bytesOfArray(array.get());
}

// The error that the operation must throw, and the one text that it must have logged.
template <class Tag>
void expectError(const std::function<void()>& operation, const std::string& logged) {
  const LogCapture log(16);
  try {
    operation();
    FAIL() << "no error";
  } catch (const Exception<Tag, std::exception>& error) {
    EXPECT_EQ(error.component(), "parallel:cluster");
    EXPECT_EQ(error.name(), std::string(Tag::name));
    EXPECT_EQ(dynamic_cast<const std::nested_exception*>(&error), nullptr) << "the cause reaches the log only";
  }
  const auto texts = log.texts();
  ASSERT_EQ(texts.size(), 1U);
  EXPECT_EQ(texts[0].rfind("Exception caught: ", 0), 0U) << texts[0];
  EXPECT_NE(texts[0].find(logged), std::string::npos) << texts[0];
}

TEST(DeserializableData, TakesTheStreamAndReadsNothing) {
  const auto watch = std::make_shared<StreamWatch>();
  std::shared_ptr<ByteStream> stream = std::make_shared<PiecewiseByteStream>(bytesOf("abc"), 1, watch);
  auto item = std::make_shared<DeserializableData>(std::move(stream));
  EXPECT_EQ(stream, nullptr);  // NOLINT(bugprone-use-after-move): what is being tested
  EXPECT_EQ(watch->delivered, 0U);
  EXPECT_EQ(item->shared_from_this(), item);
  item.reset();
  EXPECT_TRUE(watch->destroyed);
}

// --- Arrays ---

const Bytes kSerializedAbc = testing::serializedAbc();

TEST(DeserializeQxArray, BytesGiveTheArrayWhateverTheDefault) {
  const qxArrayProxy otherwise(qxCreateScalar(1));
  EXPECT_EQ(testing::bytesOfArray(itemOf(kSerializedAbc)->deserializeQxArray(otherwise).get()), bytesOf("abc"));
  EXPECT_EQ(testing::bytesOfArray(itemOf(kSerializedAbc)->deserializeQxArray({}).get()), bytesOf("abc"));
}

TEST(DeserializeQxArray, NoBytesGiveAShareOfTheDefault) {
  Bytes memory = bytesOf("abc");
  const qxArrayProxy defaultValue(
      qxAdoptArray(std::array<std::size_t, 2>{3, 1}, qxClass::Uint8, false, memory.data(), true, [] {}));
  const qxArrayProxy result = itemOf({})->deserializeQxArray(defaultValue);
  ASSERT_TRUE(result);
  EXPECT_EQ(qxGetData(result.get()), memory.data());
  EXPECT_TRUE(defaultValue) << "the caller keeps its own";
}

TEST(DeserializeQxArray, NoBytesAndNoDefaultFail) {
  expectError<cluster::DeserializeQxArrayError>([] { itemOf({})->deserializeQxArray({}); }, "DeserializationFailed");
}

TEST(DeserializeQxArray, BytesThatAreNotAnArrayFailEvenWithADefault) {
  const qxArrayProxy defaultValue(qxCreateScalar(1));
  expectError<cluster::DeserializeQxArrayError>(
      [&] { itemOf(bytesOf("not an array"))->deserializeQxArray(defaultValue); }, "DeserializationFailed");
}

TEST(DeserializeQxArray, EveryTruncationFailsButTheEmptyOneWithADefault) {
  const qxArrayProxy defaultValue(qxCreateScalar(1));
  for (std::size_t length = 1; length < kSerializedAbc.size(); ++length) {
    const Bytes cut(kSerializedAbc.begin(), kSerializedAbc.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_THROW(itemOf(cut)->deserializeQxArray(defaultValue), Exception<cluster::DeserializeQxArrayError>);
  }
}

TEST(DeserializeQxArray, ErrorOfTheStreamWithADefaultIsStillAnError) {
  struct FailingStream : ByteStream {
    std::size_t read(ByteSink&, std::size_t) override { throw std::runtime_error("the cable is cut"); }
  };
  DeserializableData item(std::make_shared<FailingStream>());
  const qxArrayProxy defaultValue(qxCreateScalar(1));
  expectError<cluster::DeserializeQxArrayError>([&] { item.deserializeQxArray(defaultValue); }, "the cable is cut");
}

class DeserializeQxArrayWithObjects : public ::testing::Test {
 protected:
  static constexpr const char* kClass = "test.Counter";

  DeserializeQxArrayWithObjects() {
    form_.save = [](const std::shared_ptr<void>& native) {
      return qxCreateScalar(*std::static_pointer_cast<int>(native));
    };
    form_.load = [this](const qxArray* saved) -> std::shared_ptr<void> {
      steps_.emplace_back("load");
      return std::make_shared<int>(static_cast<int>(qxGetElements<double>(saved)[0]));
    };
    form_.validate = [this](const std::shared_ptr<void>&) { steps_.emplace_back("validate"); };
    interpreter::registerObjectForm(kClass, form_);
    const qxArrayPtr object = qxCreateObject(kClass, std::make_shared<int>(7));
    const qxArrayPtr saved(inRunSaveObjFunction(object.get()));
    const qxArrayPtr bytes(qxSerializeEx(saved.get(), 32));
    serialized_ = testing::bytesOfArray(bytes.get());
  }
  ~DeserializeQxArrayWithObjects() override { interpreter::unregisterObjectForm(kClass); }

  interpreter::ObjectForm form_;
  std::vector<std::string> steps_;
  Bytes serialized_;
};

TEST_F(DeserializeQxArrayWithObjects, ObjectsAreLoadedThenValidated) {
  const qxArrayProxy array = itemOf(serialized_)->deserializeQxArray({});
  EXPECT_EQ(steps_, (std::vector<std::string>{"load", "validate"}));
  ASSERT_EQ(qxGetClass(array.get()), qxClass::Object);
  EXPECT_EQ(*std::static_pointer_cast<int>(qxGetNative(array.get())), 7);
}

TEST_F(DeserializeQxArrayWithObjects, ErrorOfTheValidationFails) {
  form_.validate = [](const std::shared_ptr<void>&) { throw std::runtime_error("odd counter"); };
  interpreter::registerObjectForm(kClass, form_);
  expectError<cluster::DeserializeQxArrayError>([&] { itemOf(serialized_)->deserializeQxArray({}); }, "odd counter");
}

TEST_F(DeserializeQxArrayWithObjects, ErrorOfTheLoadingFailsWithoutValidation) {
  form_.load = [](const qxArray*) -> std::shared_ptr<void> { throw std::runtime_error("no such counter"); };
  interpreter::registerObjectForm(kClass, form_);
  expectError<cluster::DeserializeQxArrayError>([&] { itemOf(serialized_)->deserializeQxArray({}); },
                                                "no such counter");
  EXPECT_TRUE(steps_.empty());
}

// --- Plain ---

TEST(DeserializePlain, ReadsTheAnnouncedBytesAndDiscardsTheRest) {
  const auto watch = std::make_shared<StreamWatch>();
  const auto item = itemOf(bytesOf({0, 0, 0, 0, 0, 0, 0, 3, 'a', 'b', 'c', 'd', 'e', 'f'}), watch);
  EXPECT_EQ(plainOf(*item), bytesOf({97, 98, 99}));
  EXPECT_EQ(watch->delivered, 14U);
}

TEST(DeserializePlain, LengthOfZeroGivesAnEmptyColumnAndDrainsTheItem) {
  const auto watch = std::make_shared<StreamWatch>();
  const auto item = itemOf(testing::concatenated({Bytes(8), bytesOf("rest")}), watch);
  const qxArrayProxy array = item->deserializePlain();
  EXPECT_EQ(qxGetDimensions(array.get())[0], 0U);
  EXPECT_EQ(qxGetDimensions(array.get())[1], 1U);
  EXPECT_EQ(watch->delivered, 12U);
}

TEST(DeserializePlain, LengthPastTheBytesLeavesZerosAtTheEnd) {
  const LogCapture log;
  EXPECT_EQ(plainOf(*itemOf(testing::concatenated({testing::bigEndian(6, 8), bytesOf("ab")}))),
            bytesOf({'a', 'b', 0, 0, 0, 0}));
  EXPECT_TRUE(log.records().empty());
}

TEST(DeserializePlain, ContentArrivesInPiecesOfAnySize) {
  const Bytes content = testing::patternOf(70000);
  for (const std::size_t piece : {1, 7, 8, 9, 16384, 1000000})
    EXPECT_EQ(plainOf(*itemOf(testing::replyPlain(content), std::make_shared<StreamWatch>(), piece)), content);
}

TEST(DeserializePlain, LargeItemsComeWhole) {
  const Bytes content = testing::patternOf(std::size_t{5} << 20);
  EXPECT_EQ(plainOf(*itemOf(testing::replyPlain(content))), content);
}

TEST(DeserializePlain, StreamThatPushesMoreThanAskedFillsTheArrayAndNoMore) {
  struct Generous : ByteStream {
    std::size_t read(ByteSink& sink, std::size_t nbytes) override {
      const Bytes bytes = nbytes == 8 ? testing::bigEndian(3, 8) : testing::patternOf(100000);
      sink.write(bytes.data(), bytes.size());
      return bytes.size();
    }
  };
  DeserializableData item(std::make_shared<Generous>());
  EXPECT_EQ(plainOf(item), testing::patternOf(3));
}

TEST(DeserializePlain, FewerThanEightBytesFail) {
  for (std::size_t nbytes = 0; nbytes < 8; ++nbytes) {
    SCOPED_TRACE(nbytes);
    expectError<cluster::DeserializePlainError>([&] { itemOf(Bytes(nbytes))->deserializePlain(); },
                                                "Byte stream did not have enough bytes for deserializing type");
  }
}

TEST(DeserializePlain, LengthWithItsTopBitSetFailsAsNegative) {
  for (const std::uint64_t length : {std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
    expectError<cluster::DeserializePlainError>([&] { itemOf(testing::bigEndian(length, 8))->deserializePlain(); },
                                                "bad numeric conversion: negative overflow");
  }
}

TEST(DeserializePlain, LengthPastAllMemoryFails) {
  const LogCapture log(16);
  EXPECT_THROW(itemOf(testing::bigEndian((std::uint64_t{1} << 63) - 1, 8))->deserializePlain(),
               Exception<cluster::DeserializePlainError>);
  EXPECT_EQ(log.texts().size(), 1U);
}

// --- Messages ---

TEST(DeserializeProtobuf, ResultBecomesAStruct) {
  // result { type_url: "type.googleapis.com/parallel.zksmessages.Missing" }
  const std::string url = "type.googleapis.com/parallel.zksmessages.Missing";
  Bytes message = bytesOf({0x0A, static_cast<int>(url.size()) + 2, 0x0A, static_cast<int>(url.size())});
  message = testing::concatenated({message, bytesOf(url)});
  const qxArrayProxy value = itemOf(message)->deserializeProtobuf();
  ASSERT_EQ(qxGetClass(value.get()), qxClass::Struct);
  EXPECT_EQ(qxGetStringUtf8(qxGetField(value.get(), 0, "MessageType")), "parallel.zksmessages.ResultPayload");
  const qxArray* result = qxGetField(value.get(), 0, "result");
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(qxGetStringUtf8(qxGetField(result, 0, "MessageType")), "parallel.zksmessages.Missing");
}

TEST(DeserializeProtobuf, NoBytesAreAnEmptyMessage) {
  const qxArrayProxy value = itemOf({})->deserializeProtobuf();
  EXPECT_EQ(qxGetStringUtf8(qxGetField(value.get(), 0, "MessageType")), "parallel.zksmessages.ResultPayload");
}

TEST(DeserializeProtobuf, BytesThatAreNotAMessageDoNotFailAtParsing) {
  const LogCapture log;
  for (const Bytes& bytes : {bytesOf({0xFF, 0xFF, 0xFF}), bytesOf({0x0A, 0x7F, 0x01}), bytesOf({0x0A})}) {
    const qxArrayProxy value = itemOf(bytes)->deserializeProtobuf();
    EXPECT_EQ(qxGetClass(value.get()), qxClass::Struct);
  }
  EXPECT_TRUE(log.records().empty());
}

// A peer's bytes must not reach the user's terminal.
TEST(DeserializeProtobuf, NothingIsPrintedOfTextThatIsNotUtf8) {
  // result { type_url: FF FE, value: "v" }, and an Any inside whose value has such text
  const Bytes direct = bytesOf({0x0A, 0x07, 0x0A, 0x02, 0xFF, 0xFE, 0x12, 0x01, 'v'});
  const std::string url = "type.googleapis.com/parallel.zksmessages.TaskDescription";
  Bytes inside = testing::concatenated(
      {bytesOf({0x0A, static_cast<int>(url.size())}), bytesOf(url), bytesOf({0x12, 0x04, 0x0A, 0x02, 0xFF, 0xFE})});
  inside = testing::concatenated({bytesOf({0x0A, static_cast<int>(inside.size())}), inside});
  for (const Bytes& bytes : {direct, inside}) {
    ::testing::internal::CaptureStderr();
    const qxArrayProxy value = itemOf(bytes)->deserializeProtobuf();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(qxGetStringUtf8(qxGetField(value.get(), 0, "MessageType")), "parallel.zksmessages.ResultPayload");
    EXPECT_NE(qxGetField(value.get(), 0, "result"), nullptr);
  }
}

// --- What all have in common ---

struct Operation {
  std::string name;
  std::string error;
  std::function<void(DeserializableData&, const testing::TemporaryDirectory&)> run;
};

std::vector<Operation> operations() {
  return {{"protobuf", "DeserializeProtobufError", [](auto& item, auto&) { item.deserializeProtobuf(); }},
          {"array", "DeserializeQxArrayError", [](auto& item, auto&) { item.deserializeQxArray({}); }},
          {"plain", "DeserializePlainError", [](auto& item, auto&) { item.deserializePlain(); }},
          {"file", "DeserializeToFileError",
           [](auto& item, auto& directory) { item.deserializeToFile(directory.file("out").u16string()); }}};
}

// A stream that throws what it is given, whatever its type.
class ThrowingStream : public ByteStream {
 public:
  explicit ThrowingStream(std::function<void()> thrower) : thrower_(std::move(thrower)) {}
  std::size_t read(ByteSink&, std::size_t) override {
    thrower_();
    return 0;
  }

 private:
  std::function<void()> thrower_;
};

TEST(DeserializableData, EveryOperationReplacesWhateverIsThrownByItsOwnError) {
  const std::vector<std::function<void()>> throwers{
      [] { throw std::runtime_error("standard"); }, [] { throw 42; }, [] { throw std::string("text"); },
      [] { throw Corvane::System::InterruptException(); }, [] { throw Exception<cluster::ZKSUnreachable>(); }};
  const testing::TemporaryDirectory directory;
  for (const Operation& operation : operations()) {
    for (const auto& thrower : throwers) {
      SCOPED_TRACE(operation.name);
      DeserializableData item(std::make_shared<ThrowingStream>(thrower));
      const LogCapture log(16);
      try {
        operation.run(item, directory);
        FAIL() << "no error";
      } catch (const IException& error) {
        EXPECT_EQ(error.identifier(), "parallel:cluster:" + operation.error);
      }
      EXPECT_EQ(log.texts().size(), 1U);
    }
  }
}

TEST(DeserializableData, FailureIsNotLoggedWhenTheLevelIsOff) {
  const testing::TemporaryDirectory directory;
  for (const Operation& operation : operations()) {
    DeserializableData item(std::make_shared<ThrowingStream>([] { throw 1; }));
    const LogCapture log(~16U);
    EXPECT_THROW(operation.run(item, directory), IException);
    EXPECT_TRUE(log.records().empty());
  }
}

TEST(DeserializableData, SecondReadFindsAnItemWithoutBytes) {
  const testing::TemporaryDirectory directory;
  const qxArrayProxy defaultValue(qxCreateScalar(5));
  for (const Operation& first : operations()) {
    SCOPED_TRACE(first.name);
    // Read to the end by any of them, though only the plain one likes the bytes.
    const auto exhausted = [&] {
      auto item = itemOf(testing::replyPlain(bytesOf("abc")));
      try {
        first.run(*item, directory);
      } catch (const IException&) {
        EXPECT_EQ(first.name, "array");
      }
      return item;
    };
    EXPECT_TRUE(qxEqual(exhausted()->deserializeQxArray(defaultValue).get(), defaultValue.get()));
    EXPECT_THROW(exhausted()->deserializeQxArray({}), Exception<cluster::DeserializeQxArrayError>);
    EXPECT_THROW(exhausted()->deserializePlain(), Exception<cluster::DeserializePlainError>);
    EXPECT_EQ(qxGetClass(exhausted()->deserializeProtobuf().get()), qxClass::Struct);
    exhausted()->deserializeToFile(directory.file("second").u16string());
    EXPECT_TRUE(std::filesystem::exists(directory.file("second")));
    EXPECT_EQ(std::filesystem::file_size(directory.file("second")), 0U);
  }
}

}  // namespace
}  // namespace parallel::spf::transport
