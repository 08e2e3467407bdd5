// Collects what one read of a stream gives.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <vector>

#include "transport/streams/ByteStream.h"
#include "transport/streams/FunctionalByteSink.h"
#include "transport/streams/SizeHinted.h"
#include "transport/streams/internal/VectorAppender.h"

namespace parallel::spf::transport {

namespace internal {

// What readBytes may expect; small counts are not worth the question.
inline std::size_t expectedBytes(const ByteStream& stream, std::size_t limit) noexcept {
  return limit <= kUnreservedBytes ? 0 : std::min({limit, sizeHintOf(stream), kMaxAnnouncedBytes});
}
inline std::size_t expectedBytes(const ByteStream& stream) noexcept {
  return std::min(sizeHintOf(stream), kMaxAnnouncedBytes);
}

}  // namespace internal

// readBytes(stream): everything up to the end. readBytes(stream, nbytes): at most `nbytes`. The result may be shorter
// than asked; whether that is an error is for the caller to say.
template <class... Arguments>
std::vector<std::byte> readBytes(ByteStream& stream, Arguments... arguments) {
  std::vector<std::byte> bytes;
  internal::VectorAppender<std::byte> appender(bytes, internal::expectedBytes(stream, arguments...));
  FunctionalByteSink sink(std::ref(appender));
  stream.read(sink, arguments...);
  return bytes;
}

}  // namespace parallel::spf::transport
