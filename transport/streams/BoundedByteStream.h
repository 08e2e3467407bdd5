// The next `limit` bytes of another stream; what follows them stays there for the next reader.
//
// The trap: a source that ends early is not an error here, only a short read.
// Ownership: shares the source; those who share it take turns.
#pragma once

#include <cstddef>
#include <limits>
#include <memory>

#include "transport/export.h"
#include "transport/streams/ByteStream.h"

namespace parallel::spf::transport {

class PARALLEL_SPF_TRANSPORT_EXPORT BoundedByteStream final : public ByteStream {
 public:
  BoundedByteStream(std::shared_ptr<ByteStream> source, std::size_t limit);
  BoundedByteStream(const BoundedByteStream&) = delete;
  BoundedByteStream& operator=(const BoundedByteStream&) = delete;
  BoundedByteStream(BoundedByteStream&&) noexcept = default;
  BoundedByteStream& operator=(BoundedByteStream&&) noexcept = default;

  // Asks the source once, for 0 bytes too.
  std::size_t read(ByteSink& sink, std::size_t nbytes = std::numeric_limits<std::size_t>::max()) override;
  ~BoundedByteStream() override;

 private:
  std::shared_ptr<ByteStream> source_;
  std::size_t limit_;
  std::size_t consumed_ = 0;
};

}  // namespace parallel::spf::transport
