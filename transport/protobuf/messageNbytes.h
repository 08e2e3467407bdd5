// The size of an encoded message as protobuf's functions take it.
#pragma once

#include <cstddef>
#include <limits>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace parallel::spf::transport::protobuf {

// Throws MessageTooLarge from 2^31 bytes on.
inline int messageNbytes(std::size_t nbytes) {
  constexpr int kMost = std::numeric_limits<int>::max();
  if (nbytes > static_cast<std::size_t>(kMost))
    throw Exception<::parallel::protobuf::MessageTooLarge>(nbytes, kMost);
  return static_cast<int>(nbytes);
}

}  // namespace parallel::spf::transport::protobuf
