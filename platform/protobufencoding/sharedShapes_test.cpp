// What conversions remember of message types, and share: results must not depend on what was converted before, nor on
// who else converts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/protobufencoding.h"
#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/hostLiterals.h"

using ::testing::ElementsAreArray;

namespace parallel::protobufencoding::testing {

namespace {

// With the fields whose bit is set, of those that can be absent.
Optionals optionalsWith(unsigned fields) {
  Optionals message;
  if ((fields & 1U) != 0)
    message.set_a_double(1.5);
  if ((fields & 2U) != 0)
    message.set_a_int32(-5);
  if ((fields & 4U) != 0)
    message.set_a_string("text");
  if ((fields & 8U) != 0)
    message.set_a_colour(GREEN);
  if ((fields & 16U) != 0)
    message.mutable_a_point()->set_x(7);
  if ((fields & 32U) != 0)
    message.GetReflection()->MutableUnknownFields(&message)->AddVarint(1000, 3);
  return message;
}
constexpr unsigned kCombinations = 64;

std::vector<std::string> expectedNames(unsigned fields) {
  std::vector<std::string> names{"MessageType"};
  const char* all[] = {"a_double", "a_int32", "a_string", "a_colour", "a_point", "UnknownFields"};
  for (unsigned i = 0; i < 6; ++i) {
    if ((fields >> i & 1U) != 0)
      names.emplace_back(all[i]);
  }
  return names;
}

void expectRoundTrip(unsigned fields) {
  const Optionals message = optionalsWith(fields);
  const qxArrayPtr decoded = decode(message, nullptr);
  const auto names = qxGetFieldNames(decoded.get());
  EXPECT_THAT(std::vector<std::string>(names.begin(), names.end()), ElementsAreArray(expectedNames(fields)));
  EXPECT_EQ(deterministic(*encode(decoded.get(), nullptr, 0)), deterministic(message)) << fields;
}

// The struct with its fields in another order, in a table of names of its own.
qxArrayPtr reversed(const qxArray* original) {
  qxArrayPtr result = qxCreateStructArray({}, {});
  const auto names = qxGetFieldNames(original);
  for (std::size_t place = names.size(); place-- > 0;)
    qxSetField(result.get(), 0, names[place], qxCreateSharedCopy(qxGetFieldAt(original, 0, place)));
  return result;
}

}  // namespace

// More combinations than are remembered, each of them more than once.
TEST(SharedShapes, EveryCombinationOfFieldsHasItsOwnNames) {
  for (int round = 0; round < 2; ++round) {
    for (unsigned fields = 0; fields < kCombinations; ++fields) {
      expectRoundTrip(fields);
      expectRoundTrip(fields);
    }
  }
}

TEST(SharedShapes, FieldsInAnyOrderAreFound) {
  for (unsigned fields = 0; fields < kCombinations; ++fields) {
    const Optionals message = optionalsWith(fields);
    const qxArrayPtr host = reversed(decode(message, nullptr).get());
    EXPECT_EQ(deterministic(*encode(host.get(), nullptr, 0)), deterministic(message)) << fields;
  }
}

TEST(SharedShapes, WritingToADecodedStructDoesNotShowInTheNextOne) {
  const Everything message;
  const Tree tree;
  const auto spoil = [](const qxArrayPtr& decoded) {
    for (const std::string& name : qxGetFieldNames(decoded.get())) {
      qxArrayPtr value = qxCreateSharedCopy(qxGetField(decoded.get(), 0, name));
      if (qxGetClass(value.get()) == qxClass::Struct)
        qxAddField(value.get(), "added");
      if (qxGetClass(value.get()) == qxClass::Text)
        qxGetWritableElements<char16_t>(value.get())[0] = u'?';
    }
    qxAddField(decoded.get(), "added");
  };
  for (const google::protobuf::Message* each : {static_cast<const google::protobuf::Message*>(&message),
                                                static_cast<const google::protobuf::Message*>(&tree)}) {
    const qxArrayPtr before = decode(*each, nullptr);
    spoil(decode(*each, nullptr));
    EXPECT_TRUE(qxEqual(decode(*each, nullptr).get(), before.get()));
  }
}

// A caller's text may lie in the memory of another text, of which it is the beginning.
TEST(SharedShapes, BeginningOfATypesNameIsNotTheName) {
  qxArrayPtr host = decode(optionalsWith(0), nullptr);
  const qxArrayPtr name = qxCreateSharedCopy(qxGetField(host.get(), 0, "MessageType"));
  const std::size_t shorter[] = {1, qxGetNumberOfElements(name.get()) - 1};
  const auto adopt = [&] {
    return qxAdoptArray(shorter, qxClass::Text, false, const_cast<void*>(qxGetData(name.get())), false, [] {});
  };
  qxSetField(host.get(), 0, "MessageType", adopt());
  EXPECT_THROW(encode(host.get(), nullptr, 0), Exception<::parallel::protobuf::EncodeError>);
  Everything outer;
  outer.mutable_optionals();
  host = decode(outer, nullptr);
  qxArrayPtr inner = qxCreateSharedCopy(qxGetField(host.get(), 0, "optionals"));
  qxSetField(inner.get(), 0, "MessageType", adopt());
  qxSetField(host.get(), 0, "optionals", std::move(inner));
  EXPECT_THROW(encode(host.get(), nullptr, 0), Exception<::parallel::protobuf::EncodeError>);
}

TEST(SharedShapes, ThreadsConvertTheSameTypesAtOnce) {
  std::vector<std::jthread> threads;
  for (unsigned number = 0; number < 4; ++number) {
    threads.emplace_back([number] {
      for (unsigned i = 0; i < 2 * kCombinations; ++i)
        expectRoundTrip((i * (2 * number + 1)) % kCombinations);
    });
  }
}

}  // namespace parallel::protobufencoding::testing
