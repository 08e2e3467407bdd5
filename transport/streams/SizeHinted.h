// A stream that may know how much is left of it. For reserving memory ahead; nothing else may depend on it.
#pragma once

#include <cstddef>

#include "transport/export.h"

namespace parallel::spf::transport {

class ByteStream;

class PARALLEL_SPF_TRANSPORT_EXPORT SizeHinted {
 public:
  // At most so many bytes are still to come; 0 when that is not known. May be wrong where the far end says so.
  virtual std::size_t sizeHint() const noexcept = 0;

 protected:
  SizeHinted() = default;
  SizeHinted(const SizeHinted&) = default;
  SizeHinted& operator=(const SizeHinted&) = default;
  ~SizeHinted() = default;
};

// The stream's own hint; 0 for a stream without one.
PARALLEL_SPF_TRANSPORT_EXPORT std::size_t sizeHintOf(const ByteStream& stream) noexcept;

}  // namespace parallel::spf::transport
