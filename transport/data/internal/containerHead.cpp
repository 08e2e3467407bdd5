#include "transport/data/internal/containerHead.h"

#include <array>
#include <boost/numeric/conversion/cast.hpp>
#include <cstdint>

#include "transport/streams/ByteSink.h"
#include "transport/streams/readBigEndian.h"

namespace parallel::spf::transport::internal {

void writeContainerHead(ByteSink& sink, std::size_t count) {
  const std::byte version{0};
  sink.write(&version, 1);

  const auto bits = static_cast<std::uint32_t>(boost::numeric_cast<std::int32_t>(count));
  const std::array<std::byte, 4> bytes{std::byte(bits >> 24 & 0xFF), std::byte(bits >> 16 & 0xFF),
                                       std::byte(bits >> 8 & 0xFF), std::byte(bits & 0xFF)};
  sink.write(bytes.data(), bytes.size());
}

std::size_t readContainerHead(ByteStream& stream) {
  static_cast<void>(readBigEndianInt8(stream));  // the version
  return boost::numeric_cast<std::size_t>(readBigEndianInt32(stream));
}

}  // namespace parallel::spf::transport::internal
