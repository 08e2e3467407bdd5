// The check that most tests of the mapping are: one struct, the bytes of its message, and both ways between them.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/protobufencoding/protobufencoding.h"
#include "platform/protobufencoding/testing/hostLiterals.h"

namespace parallel::protobufencoding::testing {

// `message` is of the type that the struct names. `canonical` is what the message's bytes decode to.
inline void expectDecodes(const google::protobuf::Message& message, const qxArray* canonical,
                          AnyEncoder* anyEncoder = nullptr) {
  const qxArrayPtr decoded = decode(message, anyEncoder);
  EXPECT_TRUE(qxEqual(decoded.get(), canonical)) << "decoded " << print(decoded.get()) << "wanted " << print(canonical);
}

inline void expectEncodes(const qxArray* value, std::string_view hex, AnyEncoder* anyEncoder = nullptr) {
  const auto message = encode(value, anyEncoder, 0);
  EXPECT_EQ(toHex(deterministic(*message)), hex) << print(value);
}

// Struct to bytes and bytes to struct.
inline void expectGolden(const qxArray* value, std::string_view hex, AnyEncoder* anyEncoder = nullptr) {
  expectEncodes(value, hex, anyEncoder);
  const auto message = generateMessageByName(qxGetStringUtf8(qxGetField(value, 0, "MessageType")));
  ASSERT_NE(message, nullptr);
  ASSERT_TRUE(message->ParsePartialFromString(fromHex(hex)));
  expectDecodes(*message, value, anyEncoder);
}
inline void expectGolden(const StructOf& value, std::string_view hex, AnyEncoder* anyEncoder = nullptr) {
  expectGolden(value.get(), hex, anyEncoder);
}

}  // namespace parallel::protobufencoding::testing
