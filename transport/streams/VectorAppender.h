// The callback of a sink that collects in a byte vector.
#pragma once

#include <cstddef>
#include <limits>
#include <vector>

#include "transport/streams/reserveBytes.h"

namespace parallel::spf::transport::internal {

// A vector that doubles copies about as many bytes as it comes to hold. From 1 MiB on it grows to 6 MiB, 24 MiB, 384 MiB
// and so on: room costs addresses only until bytes fill it. Rooms up to 24 MiB are such that malloc keeps for the next
// vector, which then finds no fresh pages.
inline std::size_t roomFor(std::size_t nbytes) noexcept {
  constexpr std::size_t kMiB = std::size_t{1} << 20;
  if (nbytes <= kMiB || nbytes > std::numeric_limits<std::size_t>::max() / 16)
    return nbytes;
  std::size_t room = 6 * kMiB;
  while (room < nbytes)
    room *= room < 24 * kMiB ? 4 : 16;
  return room;
}

template <class Byte>
class VectorAppender {
 public:
  explicit VectorAppender(std::vector<Byte>& bytes) : bytes_(bytes) {}

  void operator()(const std::byte* data, std::size_t nbytes) {
    const std::size_t needed = bytes_.size() + nbytes;
    if (needed > bytes_.capacity() && roomFor(needed) > needed)
      reserveBytes(bytes_, roomFor(needed));
    const auto* first = reinterpret_cast<const Byte*>(data);
    bytes_.insert(bytes_.end(), first, first + nbytes);
  }

 private:
  std::vector<Byte>& bytes_;
};

}  // namespace parallel::spf::transport::internal
