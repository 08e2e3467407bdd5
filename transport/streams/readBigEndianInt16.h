// The 16-bit integer that a block header is. Contract: readBigEndian.h.
#pragma once

#include <cstdint>

#include "transport/export.h"

namespace parallel::spf::transport {

class ByteStream;

PARALLEL_SPF_TRANSPORT_EXPORT std::int16_t readBigEndianInt16(ByteStream& stream);

}  // namespace parallel::spf::transport
