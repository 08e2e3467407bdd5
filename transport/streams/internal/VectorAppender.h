// The callback of a sink that collects in a byte vector.
#pragma once

#include <cstddef>
#include <vector>

#include "transport/streams/reserveBytes.h"

namespace parallel::spf::transport::internal {

// Believes `expected`, the announced size of it all, only when so many bytes have really come: until then small items,
// which are most, would pay for the room that a long reply announces.
inline constexpr std::size_t kUnreservedBytes = 65536;

template <class Byte>
class VectorAppender {
 public:
  VectorAppender(std::vector<Byte>& bytes, std::size_t expected) : bytes_(bytes), expected_(expected) {}

  void operator()(const std::byte* data, std::size_t nbytes) {
    if (expected_ > bytes_.size() && bytes_.size() + nbytes > kUnreservedBytes) {
      reserveBytes(bytes_, expected_);
      expected_ = 0;
    }
    const auto* first = reinterpret_cast<const Byte*>(data);
    bytes_.insert(bytes_.end(), first, first + nbytes);
  }

 private:
  std::vector<Byte>& bytes_;
  std::size_t expected_;  // 0: not known, or reserved already
};

}  // namespace parallel::spf::transport::internal
