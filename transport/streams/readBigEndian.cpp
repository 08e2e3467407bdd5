#include "transport/streams/readBigEndian.h"

#include <stdexcept>

#include "transport/streams/readBigEndianInt16.h"

namespace parallel::spf::transport {

void internal::throwNotEnoughBytes() {
  throw std::runtime_error("Byte stream did not have enough bytes for deserializing type");
}

std::int8_t readBigEndianInt8(ByteStream& stream) {
  return readBigEndian<std::int8_t>(stream);
}

std::int16_t readBigEndianInt16(ByteStream& stream) {
  return readBigEndian<std::int16_t>(stream);
}

std::int32_t readBigEndianInt32(ByteStream& stream) {
  return readBigEndian<std::int32_t>(stream);
}

std::int64_t readBigEndianInt64(ByteStream& stream) {
  return readBigEndian<std::int64_t>(stream);
}

}  // namespace parallel::spf::transport
