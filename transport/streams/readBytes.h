// Collects what one read of a stream gives.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "transport/streams/ByteStream.h"
#include "transport/streams/FunctionalByteSink.h"
#include "transport/streams/VectorAppender.h"

namespace parallel::spf::transport {

// readBytes(stream): everything up to the end. readBytes(stream, nbytes): at most `nbytes`. The result may be shorter
// than asked; whether that is an error is for the caller to say.
template <class... Arguments>
std::vector<std::byte> readBytes(ByteStream& stream, Arguments... arguments) {
  std::vector<std::byte> bytes;
  internal::VectorAppender<std::byte> appender(bytes);
  FunctionalByteSink sink(std::ref(appender));
  stream.read(sink, arguments...);
  return bytes;
}

}  // namespace parallel::spf::transport
