// The framing's constants and arithmetic, named. Format: docs/framing.md.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace parallel::spf::transport::block_format {

// A block's header is a signed 16-bit integer: the block's data bytes, or the end marker.
inline constexpr std::size_t kHeaderBytes = 2;
inline constexpr std::size_t kMaxBlockBytes = 32767;
inline constexpr std::int16_t kEndMarker = -1;

using Header = std::array<std::byte, kHeaderBytes>;

constexpr Header encodeHeader(std::int16_t value) {
  const auto bits = static_cast<std::uint16_t>(value);
  return {std::byte(bits >> 8), std::byte(bits & 0xFF)};
}

// What still fits in a block that has `pending` bytes.
constexpr std::size_t roomInBlock(std::size_t pending) {
  return kMaxBlockBytes - pending;
}

// What an item of `nbytes` becomes on the wire: a header for each block, full or last, and the end marker.
constexpr std::size_t framedBytes(std::size_t nbytes) {
  const std::size_t blocks = nbytes / kMaxBlockBytes + (nbytes % kMaxBlockBytes != 0 ? 1 : 0);
  return nbytes + (blocks + 1) * kHeaderBytes;
}

}  // namespace parallel::spf::transport::block_format
