// Gives bytes by pushing them into a sink that the reader hands it, so that no layer of a stack of streams buffers.
//
// The trap: a result smaller than asked means the end of the data, never "try again".
//
// Threads: one at a time per stream.
// Errors:  what the sink throws passes through; bytes pushed until then are in no result.
#pragma once

#include <cstddef>
#include <limits>

#include "transport/export.h"
#include "transport/streams/ByteSink.h"

namespace parallel::spf::transport {

class PARALLEL_SPF_TRANSPORT_EXPORT ByteStream {
 public:
  ByteStream() = default;
  ByteStream(const ByteStream&) = default;
  ByteStream& operator=(const ByteStream&) = default;
  ByteStream(ByteStream&&) noexcept = default;
  ByteStream& operator=(ByteStream&&) noexcept = default;

  // Pushes up to `nbytes`, in one or more writes, and returns how many; everything up to the end by default.
  virtual std::size_t read(ByteSink& sink, std::size_t nbytes = std::numeric_limits<std::size_t>::max()) = 0;
  virtual ~ByteStream();
};

}  // namespace parallel::spf::transport
