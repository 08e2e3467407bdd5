// Collects what an object writes of itself.
#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <vector>

#include "transport/streams/FunctionalByteSink.h"
#include "transport/streams/VectorAppender.h"

namespace parallel::spf::transport {

// T has serialize(ByteSink&) const; where it also has serializedSizeHint(), that much room is reserved ahead. Byte is
// any type of one byte.
template <class T, class Byte>
std::vector<Byte> getSerializedBytes(const T& object) {
  std::vector<Byte> bytes;
  if constexpr (requires {
                  { object.serializedSizeHint() } -> std::convertible_to<std::size_t>;
                })
    reserveBytes(bytes, object.serializedSizeHint());
  internal::VectorAppender<Byte> appender(bytes);
  FunctionalByteSink sink(std::ref(appender));
  object.serialize(sink);
  return bytes;
}

}  // namespace parallel::spf::transport
