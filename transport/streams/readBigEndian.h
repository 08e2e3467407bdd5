// Integers of fixed width off a stream, most significant byte first.
//
// Each makes one read of the integer's width and takes the first bytes of what comes, should a stream push more than
// asked. Errors: std::runtime_error "Byte stream did not have enough bytes for deserializing type" when fewer come;
// those that came are gone.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>
#include <vector>

#include "transport/export.h"
#include "transport/streams/ByteStream.h"
#include "transport/streams/readBytes.h"

namespace parallel::spf::transport {

namespace internal {

[[noreturn]] PARALLEL_SPF_TRANSPORT_EXPORT void throwNotEnoughBytes();

}  // namespace internal

template <std::signed_integral Integer>
Integer readBigEndian(ByteStream& stream) {
  const std::vector<std::byte> bytes = readBytes(stream, sizeof(Integer));
  if (bytes.size() < sizeof(Integer))
    internal::throwNotEnoughBytes();
  std::uint64_t value = 0;
  for (const std::byte byte : std::span(bytes).first(sizeof(Integer)))
    value = value << 8 | std::to_integer<std::uint64_t>(byte);
  return static_cast<Integer>(value);
}

PARALLEL_SPF_TRANSPORT_EXPORT std::int8_t readBigEndianInt8(ByteStream& stream);
PARALLEL_SPF_TRANSPORT_EXPORT std::int32_t readBigEndianInt32(ByteStream& stream);
PARALLEL_SPF_TRANSPORT_EXPORT std::int64_t readBigEndianInt64(ByteStream& stream);

}  // namespace parallel::spf::transport
