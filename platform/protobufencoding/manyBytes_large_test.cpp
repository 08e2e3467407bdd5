// Around the 2^31 - 1 bytes that protobuf can count, for which there must be several times as much memory.
#include <google/protobuf/unknown_field_set.h>
#include <gtest/gtest.h>

#include <limits>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/testing/SchedulerAnyEncoder.h"
#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/hostLiterals.h"
#include "platform/protobufencoding/testing/testTypes.h"

namespace parallel::protobufencoding::testing {
namespace {

constexpr std::size_t kMost = std::numeric_limits<int>::max();
constexpr std::size_t kFieldHeadBytes = 6;  // of a field of so many bytes

// A BytesValue whose encoding has this many bytes.
StructOf bytesValue(std::size_t encodedBytes) {
  const std::size_t column[] = {encodedBytes - kFieldHeadBytes, 1};
  return StructOf("google.protobuf.BytesValue").with("value", qxCreateNumericArray(column, qxClass::Uint8));
}

void expectTooLarge(const StructOf& value, const std::string& path) {
  SchedulerAnyEncoder encoder;
  try {
    encode(value.get(), &encoder, 0);
    ADD_FAILURE() << path;
  } catch (const Exception<::parallel::protobuf::EncodeError>& error) {
    EXPECT_EQ(error.what(), "The value cannot become a message: " + path +
                                ": found a message of 2147483648 bytes, wanted at most 2147483647 bytes.");
  }
}

TEST(ManyBytes, MessageThatAnAnyCannotHoldIsRefused) {
  expectTooLarge(structOf("Parcel").with("content", bytesValue(kMost + 1)), typeName("Parcel") + ".content");
  expectTooLarge(structOf("WellKnown").with("any", bytesValue(kMost + 1)), typeName("WellKnown") + ".any");
}

TEST(ManyBytes, AnyHoldsTheLargestMessage) {
  SchedulerAnyEncoder encoder;
  const auto message = encode(structOf("Parcel").with("content", bytesValue(kMost)).get(), &encoder, 0);
  EXPECT_EQ(dynamic_cast<const Parcel&>(*message).content().value().size(), kMost);
}

// Two fields, of which the parser would take the second.
TEST(ManyBytes, AnyOfMoreThanAMessageCanHaveStaysPacked) {
  constexpr std::size_t kHalf = std::size_t{1} << 30U;
  const std::string head = fromHex("0a 80 80 80 80 04");
  Parcel parcel;
  parcel.mutable_content()->set_type_url("type.googleapis.com/google.protobuf.BytesValue");
  std::string& value = *parcel.mutable_content()->mutable_value();
  value.reserve(2 * (head.size() + kHalf));
  for (int i = 0; i < 2; ++i)
    value.append(head).append(kHalf, 'x');
  SchedulerAnyEncoder encoder;
  const qxArrayPtr decoded = decode(parcel, &encoder);
  const qxArray* content = qxGetField(decoded.get(), 0, "content");
  EXPECT_EQ(qxGetStringUtf8(qxGetField(content, 0, "MessageType")), "parallel.zksmessages.Any");
  EXPECT_EQ(qxGetNumberOfElements(qxGetField(content, 0, "value")), value.size());
}

// A message with unknown fields of so many bytes.
Point withUnknown(std::size_t nbytes) {
  Point point;
  point.GetReflection()->MutableUnknownFields(&point)->AddLengthDelimited(15,
                                                                          std::string(nbytes - kFieldHeadBytes, '\0'));
  return point;
}

TEST(ManyBytes, UnknownFieldsOfMoreThanAMessageCanHaveAreRefused) {
  EXPECT_THROW(decode(withUnknown(kMost + 1), nullptr), Exception<::parallel::protobuf::MessageTooLarge>);
  const qxArrayPtr decoded = decode(withUnknown(kMost), nullptr);
  EXPECT_EQ(qxGetNumberOfElements(qxGetField(decoded.get(), 0, "UnknownFields")), kMost);
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
