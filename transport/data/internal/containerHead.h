// The head of a payload's container: a version byte and the number of items, 32 bits, signed, big-endian.
#pragma once

#include <cstddef>

namespace parallel::spf::transport {

class ByteSink;
class ByteStream;

namespace internal {

constexpr std::size_t kContainerHeadBytes = 5;

// Version byte 0, one write, then the count, one write. Boost's positive overflow, after the version byte, for a count
// of 2^31 or more.
void writeContainerHead(ByteSink& sink, std::size_t count);

// The count. Any version byte will do. std::runtime_error when bytes are missing, Boost's negative overflow for a
// negative count.
std::size_t readContainerHead(ByteStream& stream);

}  // namespace internal
}  // namespace parallel::spf::transport
