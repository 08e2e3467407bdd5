// Takes bytes that are pushed into it.
//
// Ownership: the bytes are the caller's again when write() returns.
// Threads:   one at a time per sink.
// Errors:    a failure is thrown; how much was taken by then is the sink's to say.
#pragma once

#include <cstddef>

#include "transport/export.h"

namespace parallel::spf::transport {

class PARALLEL_SPF_TRANSPORT_EXPORT ByteSink {
 public:
  ByteSink() = default;
  ByteSink(const ByteSink&) = delete;
  ByteSink& operator=(const ByteSink&) = delete;

  // Takes all `nbytes`. 0 is allowed, and then does nothing.
  virtual void write(const std::byte* data, std::size_t nbytes) = 0;
  virtual ~ByteSink();
};

}  // namespace parallel::spf::transport
