#include "transport/protobuf/builtins.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/InternalException.h"
#include "platform/errors/catalogue.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "transport/protobuf/detail.h"
#include "transport/protobuf/messageNbytes.h"

namespace parallel::spf::transport::protobuf {
namespace {

using Builtin = void (*)(int, qxArray**, int, const qxArray**);

// Calls a builtin with one output slot and the inputs given.
qxArrayPtr call(Builtin builtin, int nlhs, const std::vector<const qxArray*>& inputs) {
  std::array<qxArray*, 2> outputs{};
  std::vector<const qxArray*> prhs = inputs;
  builtin(nlhs, outputs.data(), static_cast<int>(prhs.size()), prhs.data());
  return qxArrayPtr(outputs[0]);
}

qxArrayPtr structOfType(std::string_view type) {
  const std::array<std::size_t, 2> one{1, 1};
  const std::vector<std::string> names{"MessageType"};
  qxArrayPtr value = qxCreateStructArray(one, names);
  qxSetField(value.get(), 0, "MessageType", qxCreateStringUtf8(type));
  return value;
}

qxArrayPtr bytesOf(std::string_view bytes) {
  const std::array<std::size_t, 2> dimensions{bytes.size(), 1};
  qxArrayPtr array = qxCreateNumericArray(dimensions, qxClass::Uint8);
  std::copy(bytes.begin(), bytes.end(), qxGetWritableElements<std::uint8_t>(array.get()).begin());
  return array;
}

std::string textOf(const qxArray* bytes) {
  const auto elements = qxGetElements<std::uint8_t>(bytes);
  return {elements.begin(), elements.end()};
}

std::vector<std::size_t> dimensionsOf(const qxArray* array) {
  const qxDimensions dimensions = qxGetDimensions(array);
  return {dimensions.begin(), dimensions.end()};
}

zksmessages::TesselTaskExecutionInfo sampleInfo() {
  zksmessages::TesselTaskExecutionInfo info;
  info.set_outcome(zksmessages::TesselTaskExecutionInfo::OUTCOME_SIGNALLED);
  info.set_signal(9);
  info.set_message("killed");
  info.mutable_wall_time()->set_seconds(2);
  info.set_peak_memory_bytes(1ULL << 40U);
  info.add_missing_outputs("a.txt");
  return info;
}

std::string failureText(Builtin builtin, const qxArray* input) {
  try {
    call(builtin, 1, {input});
  } catch (const InternalException& error) {
    return error.what();
  }
  return "no error";
}

struct NamedBuiltin {
  const char* name;
  Builtin builtin;
};

// For the test's name, in which an address would change from run to run.
void PrintTo(const NamedBuiltin& named, std::ostream* out) {
  *out << named.name;
}

class BothBuiltins : public ::testing::TestWithParam<NamedBuiltin> {};

TEST_P(BothBuiltins, CheckArgumentCountsBeforeAnyWork) {
  const qxArrayPtr input = structOfType("no.Such");
  EXPECT_THROW(call(GetParam().builtin, 1, {}), Exception<host::builtins::NotEnoughInputs>);
  EXPECT_THROW(call(GetParam().builtin, 1, {input.get(), input.get()}), Exception<host::builtins::TooManyInputs>);
  EXPECT_THROW(call(GetParam().builtin, 2, {input.get()}), Exception<host::builtins::TooManyOutputs>);
}

TEST_P(BothBuiltins, CheckOutputsBeforeInputs) {
  EXPECT_THROW(call(GetParam().builtin, 2, {}), Exception<host::builtins::TooManyOutputs>);
  EXPECT_THROW(call(GetParam().builtin, 2, {nullptr, nullptr}), Exception<host::builtins::TooManyOutputs>);
}

INSTANTIATE_TEST_SUITE_P(Builtins, BothBuiltins,
                         ::testing::Values(NamedBuiltin{"serialize", &bnSerializeProtobufStruct},
                                           NamedBuiltin{"deserialize", &bnDeserializeTaskExecutionInfo}),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST(SerializeProtobufStruct, GivesTheBytesAsAColumn) {
  qxArrayPtr value = structOfType("parallel.zksmessages.EchoRequest.Item");
  qxSetField(value.get(), 0, "kind", qxCreateStringUtf8("ITEM_KIND_PLAIN"));
  qxSetField(value.get(), 0, "nbytes", qxCreateScalar(5));
  const qxArrayPtr bytes = call(bnSerializeProtobufStruct, 1, {value.get()});
  EXPECT_EQ(dimensionsOf(bytes.get()), (std::vector<std::size_t>{4, 1}));
  EXPECT_EQ(textOf(bytes.get()), "\x08\x03\x10\x05");
}

TEST(SerializeProtobufStruct, GivesAnEmptyColumnForAnEmptyMessage) {
  const qxArrayPtr bytes = call(bnSerializeProtobufStruct, 1, {structOfType("parallel.zksmessages.Missing").get()});
  EXPECT_EQ(qxGetClass(bytes.get()), qxClass::Uint8);
  EXPECT_EQ(dimensionsOf(bytes.get()), (std::vector<std::size_t>{0, 1}));
}

TEST(SerializeProtobufStruct, StoresItsResultWhenNoOutputIsAskedFor) {
  EXPECT_NE(call(bnSerializeProtobufStruct, 0, {structOfType("parallel.zksmessages.Missing").get()}), nullptr);
}

TEST(SerializeProtobufStruct, PutsItsOwnWordsBeforeTheCause) {
  EXPECT_EQ(failureText(bnSerializeProtobufStruct, structOfType("no.Such").get()),
            "Error occurred serializing protobuf message: The value cannot become a message: the value.MessageType: "
            "found \"no.Such\", wanted the full name of a known message type.\n");
}

TEST(SerializeProtobufStruct, LeavesTheOutputAloneWhenItFails) {
  qxArray* output = nullptr;
  const qxArrayPtr value = structOfType("no.Such");
  const qxArray* input = value.get();
  EXPECT_THROW(bnSerializeProtobufStruct(1, &output, 1, &input), InternalException);
  EXPECT_EQ(output, nullptr);
}

TEST(DeserializeTaskExecutionInfo, GivesTheStructOfTheBytes) {
  const auto info = sampleInfo();
  const qxArrayPtr value = call(bnDeserializeTaskExecutionInfo, 1, {bytesOf(info.SerializeAsString()).get()});
  EXPECT_TRUE(qxEqual(value.get(), detail::decode(info).get()));
  EXPECT_EQ(qxGetElements<std::uint64_t>(qxGetField(value.get(), 0, "peak_memory_bytes"))[0], 1ULL << 40U);
}

TEST(DeserializeTaskExecutionInfo, StoresItsResultWhenNoOutputIsAskedFor) {
  EXPECT_NE(call(bnDeserializeTaskExecutionInfo, 0, {bytesOf("").get()}), nullptr);
}

TEST(DeserializeTaskExecutionInfo, GivesTheDefaultForNoBytes) {
  const qxArrayPtr expected = detail::decode(zksmessages::TesselTaskExecutionInfo());
  EXPECT_TRUE(qxEqual(call(bnDeserializeTaskExecutionInfo, 1, {bytesOf("").get()}).get(), expected.get()));
}

TEST(DeserializeTaskExecutionInfo, ReadsEveryTruncationAsFarAsTheParserGets) {
  const std::string whole = sampleInfo().SerializeAsString();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    zksmessages::TesselTaskExecutionInfo cut;
    static_cast<void>(cut.ParsePartialFromArray(whole.data(), static_cast<int>(length)));
    const qxArrayPtr value = call(bnDeserializeTaskExecutionInfo, 1, {bytesOf(whole.substr(0, length)).get()});
    EXPECT_TRUE(qxEqual(value.get(), detail::decode(cut).get())) << length;
  }
}

TEST(DeserializeTaskExecutionInfo, KeepsTheFieldsBeforeBytesThatAreNotAMessage) {
  const qxArrayPtr value = call(bnDeserializeTaskExecutionInfo, 1, {bytesOf("\x08\x01\xff").get()});
  EXPECT_EQ(qxGetStringUtf8(qxGetField(value.get(), 0, "outcome")), "OUTCOME_EXITED");
}

TEST(DeserializeTaskExecutionInfo, PrintsNothingOfTextThatIsNotUtf8) {
  zksmessages::TesselTaskExecutionInfo info;
  info.set_outcome(zksmessages::TesselTaskExecutionInfo::OUTCOME_EXITED);
  info.set_message("@@");
  std::string wire = info.SerializeAsString();
  wire.replace(wire.find("@@"), 2, "\xFF\xFE");
  const qxArrayPtr bytes = bytesOf(wire);
  ::testing::internal::CaptureStderr();
  const qxArrayPtr value = call(bnDeserializeTaskExecutionInfo, 1, {bytes.get()});
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(qxGetStringUtf8(qxGetField(value.get(), 0, "outcome")), "OUTCOME_EXITED");
  EXPECT_EQ(textOf(qxGetField(value.get(), 0, "message")), "\xFF\xFE");
}

// The bytes of any class are taken as they lie, one for each element.
TEST(DeserializeTaskExecutionInfo, DoesNotLookAtTheClass) {
  const std::string wire("\x08\x01", 2);
  qxArrayPtr text = qxCreateString(std::u16string(1, char16_t{0x0108}) + u"x");
  const qxArrayPtr fromText = call(bnDeserializeTaskExecutionInfo, 1, {text.get()});
  EXPECT_TRUE(qxEqual(fromText.get(), call(bnDeserializeTaskExecutionInfo, 1, {bytesOf(wire).get()}).get()));
  const std::array<std::size_t, 3> cube{1, 2, 1};
  qxArrayPtr shaped = bytesOf(wire);
  qxReshape(shaped.get(), cube);
  EXPECT_TRUE(qxEqual(call(bnDeserializeTaskExecutionInfo, 1, {shaped.get()}).get(), fromText.get()));
}

TEST(DeserializeTaskExecutionInfo, ReadsNothingFromArraysWithoutBytes) {
  const qxArrayPtr expected = detail::decode(zksmessages::TesselTaskExecutionInfo());
  const qxArrayPtr value = structOfType("any");
  EXPECT_TRUE(qxEqual(call(bnDeserializeTaskExecutionInfo, 1, {value.get()}).get(), expected.get()));
}

TEST(DeserializeTaskExecutionInfo, PutsItsOwnWordsBeforeTheCause) {
  const std::array<std::size_t, 2> tooLong{std::size_t{1} << 31U, 1};
  const qxArrayPtr bytes = qxCreateNumericArray(tooLong, qxClass::Uint8);  // its pages are never touched
  EXPECT_EQ(failureText(bnDeserializeTaskExecutionInfo, bytes.get()),
            "Error occurred deserializing protobuf message: A message of 2147483648 bytes is larger than a message can "
            "be; the most is 2147483647 bytes.\n");
}

TEST(MessageNbytes, EndsAtTwoToThe31) {
  EXPECT_EQ(messageNbytes(0), 0);
  EXPECT_EQ(messageNbytes(2147483647), 2147483647);
  EXPECT_THROW(messageNbytes(2147483648), Exception<::parallel::protobuf::MessageTooLarge>);
  EXPECT_THROW(messageNbytes(std::size_t{1} << 40U), Exception<::parallel::protobuf::MessageTooLarge>);
}

}  // namespace
}  // namespace parallel::spf::transport::protobuf
