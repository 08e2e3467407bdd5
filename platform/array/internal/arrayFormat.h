// The numbers of the serialised form (docs/array-format.md), which writer and reader share.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

#include "platform/array/qxArray.h"

namespace qx_detail {

static_assert(std::endian::native == std::endian::little, "element bytes are copied as they lie in memory");

inline constexpr std::uint64_t kSelfDescribedTag = 55799;  // RFC 8949, 3.4.6
inline constexpr std::uint64_t kColumnMajorTag = 1040;     // RFC 8746, 3.1.2
inline constexpr std::uint64_t kComplexTag = 43001;        // real and imaginary parts in turn
inline constexpr std::uint64_t kHostArrayTag = 8022899;    // ours: what no typed array can say

// Keys of the map under kHostArrayTag, in the order in which they stand.
inline constexpr std::uint64_t kClassKey = 0;
inline constexpr std::uint64_t kDimensionsKey = 1;
inline constexpr std::uint64_t kFieldsKey = 2;  // struct only
inline constexpr std::uint64_t kElementsKey = 3;

// Little-endian typed arrays of RFC 8746, in the order of qxClass from Float64 to Uint64.
inline constexpr std::array<std::uint64_t, 10> kTypedArrayTags{86, 85, 72, 64, 77, 69, 78, 70, 79, 71};
inline constexpr std::uint64_t kUtf16UnitsTag = 69;  // uint16, little-endian

inline constexpr std::uint64_t typedArrayTag(qxClass numeric) {
  return kTypedArrayTags[static_cast<std::size_t>(numeric)];
}

}  // namespace qx_detail
