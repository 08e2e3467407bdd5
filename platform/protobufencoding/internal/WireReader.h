// Reads encoded fields in order, as protobuf's parser does. Each read returns false, and is the last one, when the bytes
// are not what it wants or end before.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>

namespace parallel::protobufencoding {

enum WireType : std::uint32_t {
  Varint = 0,
  Fixed64 = 1,
  LengthDelimited = 2,
  StartGroup = 3,
  EndGroup = 4,
  Fixed32 = 5
};

constexpr std::uint32_t wireTypeOf(std::uint32_t tag) {
  return tag & 7U;
}
constexpr int fieldNumberOf(std::uint32_t tag) {
  return static_cast<int>(tag >> 3U);
}
// The tag that ends the group that `start` begins.
constexpr std::uint32_t endOfGroup(std::uint32_t start) {
  return start - StartGroup + EndGroup;
}

class WireReader {
 public:
  explicit WireReader(std::string_view bytes, std::size_t at = 0) : bytes_(bytes), at_(at) {}

  std::size_t at() const { return at_; }
  std::size_t left() const { return bytes_.size() - at_; }

  bool skip(std::size_t nbytes) {
    if (nbytes > left())
      return false;
    at_ += nbytes;
    return true;
  }

  // A tag, or a length. Of at most 5 bytes; of the last one only what fits counts.
  bool readVarint32(std::uint32_t& value) {
    constexpr int kMostBits = 35;
    value = 0;
    std::uint8_t byte = 0x80;
    for (int shift = 0; shift < kMostBits && byte >= 0x80; shift += 7) {
      if (!readByte(byte))
        return false;
      value |= (byte & 0x7FU) << static_cast<unsigned>(shift);
    }
    return byte < 0x80;
  }

  bool readLength(std::size_t& nbytes) {
    std::uint32_t length = 0;
    if (!readVarint32(length) || length > static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max()))
      return false;
    nbytes = length;
    return true;
  }

  bool skipVarint() {
    constexpr int kMostBytes = 10;
    std::uint8_t byte = 0x80;
    for (int i = 0; i < kMostBytes && byte >= 0x80; ++i) {
      if (!readByte(byte))
        return false;
    }
    return byte < 0x80;
  }

 private:
  bool readByte(std::uint8_t& byte) {
    if (at_ == bytes_.size())
      return false;
    byte = static_cast<std::uint8_t>(bytes_[at_++]);
    return true;
  }

  std::string_view bytes_;
  std::size_t at_;
};

}  // namespace parallel::protobufencoding
