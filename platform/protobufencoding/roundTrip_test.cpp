// Properties: whatever a message holds comes back byte for byte; whatever the parser could read of its bytes does too.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <functional>

#include "platform/protobufencoding/testing/RandomMessages.h"
#include "platform/protobufencoding/testing/SchedulerAnyEncoder.h"
#include "platform/protobufencoding/testing/canonicalAnys.h"
#include "platform/protobufencoding/testing/everything2.pb.h"
#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/golden.h"
#include "platform/protobufencoding/testing/loadedDescriptors.h"

namespace parallel::protobufencoding::testing {
namespace {

constexpr int kLevels = 5;

// The message's bytes after its way through a host struct.
std::string bytesOnceAround(const google::protobuf::Message& message) {
  SchedulerAnyEncoder encoder;
  const qxArrayPtr value = decode(message, &encoder);
  return deterministic(*encode(value.get(), &encoder, 0));
}

void expectRandomMessagesComeBack(const std::function<std::unique_ptr<google::protobuf::Message>()>& create) {
  EXPECT_TRUE(rc::check([&](std::uint64_t seed) {
    const auto message = create();
    RandomMessages(seed).fill(*message, kLevels);
    const std::string once = bytesOnceAround(*message);
    SchedulerAnyEncoder encoder;
    writeAnysAnew(*message, &encoder);
    RC_ASSERT(toHex(once) == toHex(deterministic(*message)));
  }));
}

TEST(RoundTrip, RandomProto3MessagesComeBack) {
  expectRandomMessagesComeBack([] { return std::make_unique<Everything>(); });
}

TEST(RoundTrip, RandomProto2MessagesComeBack) {
  expectRandomMessagesComeBack([] { return std::make_unique<Everything2>(); });
}

TEST(RoundTrip, RandomAnyMessagesComeBack) {
  expectRandomMessagesComeBack([] { return std::make_unique<Parcel>(); });
}

TEST(RoundTrip, RandomMessagesOfLoadedTypesComeBack) {
  expectRandomMessagesComeBack([] { return newLoaded(); });
}

TEST(RoundTrip, RandomMessagesOfEveryWellKnownTypeComeBackAtTheTop) {
  for (const char* name : {"Any", "Timestamp", "Duration", "Struct", "Value", "ListValue", "FieldMask", "Empty",
                           "DoubleValue", "FloatValue", "Int64Value", "UInt64Value", "Int32Value", "UInt32Value",
                           "BoolValue", "StringValue", "BytesValue"}) {
    SCOPED_TRACE(name);
    expectRandomMessagesComeBack([&] { return generateMessageByName(std::string("google.protobuf.") + name); });
  }
}

// The struct is a value like another: it can be sent as an array and is the same after.
TEST(RoundTrip, StructsSurviveTheirOwnSerialisation) {
  EXPECT_TRUE(rc::check([](std::uint64_t seed) {
    Everything message;
    RandomMessages(seed).fill(message, kLevels);
    const qxArrayPtr value = decode(message, nullptr);
    const qxArrayPtr bytes(qxSerializeEx(value.get(), qxSerializeDefaults));
    const qxArrayPtr back(qxDeserialize(qxGetData(bytes.get()), qxGetNumberOfElements(bytes.get())));
    RC_ASSERT(static_cast<bool>(back));
    RC_ASSERT(qxEqual(back.get(), value.get()));
  }));
}

// The same value with the fields of all structs in the opposite order, and with names of their own: as a caller may
// make it.
qxArrayPtr reversed(const qxArray* value) {
  const std::size_t count = qxGetNumberOfElements(value);
  if (qxGetClass(value) == qxClass::List) {
    qxArrayPtr result = qxCreateListArray(qxGetDimensions(value));
    for (std::size_t i = 0; i < count; ++i)
      qxSetListElement(result.get(), i, reversed(qxGetListElement(value, i)));
    return result;
  }
  if (qxGetClass(value) != qxClass::Struct)
    return qxCreateSharedCopy(value);
  const auto names = qxGetFieldNames(value);
  qxArrayPtr result = qxCreateStructArray(qxGetDimensions(value), std::vector(names.rbegin(), names.rend()));
  for (std::size_t i = 0; i < count; ++i) {
    for (const std::string& name : names)
      qxSetField(result.get(), i, name, reversed(qxGetField(value, i, name)));
  }
  return result;
}

TEST(RoundTrip, FieldsOfStructsMayStandInAnyOrder) {
  EXPECT_TRUE(rc::check([](std::uint64_t seed) {
    SchedulerAnyEncoder encoder;
    const auto message = newLoaded();
    RandomMessages(seed).fill(*message, kLevels);
    const qxArrayPtr value = reversed(decode(*message, &encoder).get());
    writeAnysAnew(*message, &encoder);
    RC_ASSERT(toHex(deterministic(*encode(value.get(), &encoder, 0))) == toHex(deterministic(*message)));
  }));
}

// False for what the parser left of bytes that it refused: no required field, text cut inside a character.
bool isValid(const google::protobuf::Message& message) {
  const std::unique_ptr<google::protobuf::Message> again(message.New());
  return again->ParseFromString(deterministic(message));
}

void expectEveryTruncationIsReadAsFarAsItGoes(const google::protobuf::Message& whole) {
  const std::string bytes = deterministic(whole);
  for (std::size_t length = 0; length <= bytes.size(); ++length) {
    const std::unique_ptr<google::protobuf::Message> cut(whole.New());
    static_cast<void>(cut->ParsePartialFromArray(bytes.data(), static_cast<int>(length)));
    SchedulerAnyEncoder encoder;
    const qxArrayPtr value = decode(*cut, &encoder);
    ASSERT_NE(value, nullptr);
    if (!isValid(*cut))
      continue;
    writeAnysAnew(*cut, &encoder);
    ASSERT_EQ(toHex(deterministic(*encode(value.get(), &encoder, 0))), toHex(deterministic(*cut))) << length;
  }
}

TEST(RoundTrip, EveryTruncationIsReadAsFarAsTheParserGot) {
  for (const std::uint64_t seed : {1U, 2U, 3U}) {
    Everything proto3;
    RandomMessages(seed).fill(proto3, 3);
    expectEveryTruncationIsReadAsFarAsItGoes(proto3);
    Everything2 proto2;
    RandomMessages(seed).fill(proto2, 4);
    expectEveryTruncationIsReadAsFarAsItGoes(proto2);
  }
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
