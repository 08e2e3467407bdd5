#include "transport/streams/SizeHinted.h"

#include "transport/streams/ByteStream.h"

namespace parallel::spf::transport {

std::size_t sizeHintOf(const ByteStream& stream) noexcept {
  const auto* hinted = dynamic_cast<const SizeHinted*>(&stream);
  return hinted == nullptr ? 0 : hinted->sizeHint();
}

}  // namespace parallel::spf::transport
