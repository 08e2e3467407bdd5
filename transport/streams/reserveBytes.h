// Room ahead in a byte vector.
#pragma once

#include <cstddef>
#include <exception>
#include <vector>

#include "transport/export.h"

namespace parallel::spf::transport {

// From here on huge pages are worth asking for: a fresh page is what costs, and there are 512 times fewer of them.
inline constexpr std::size_t kHugePageReservationBytes = std::size_t{4} << 20;

namespace internal {

// Asks for huge pages behind the whole pages of that memory, which may be refused; the content stays.
PARALLEL_SPF_TRANSPORT_EXPORT void adviseHugePages(void* data, std::size_t nbytes) noexcept;

}  // namespace internal

// Makes room for `nbytes` in all. Does nothing when there is no such memory: whether the bytes really come is not known
// yet.
template <class Byte>
requires(sizeof(Byte) == 1) void reserveBytes(std::vector<Byte>& bytes, std::size_t nbytes) noexcept {
  if (nbytes <= bytes.capacity())
    return;
  try {
    bytes.reserve(nbytes);
  } catch (const std::exception&) {  // no memory, or more than a vector can ever hold
    return;
  }
  if (nbytes >= kHugePageReservationBytes)
    internal::adviseHugePages(bytes.data(), bytes.capacity());
}

}  // namespace parallel::spf::transport
