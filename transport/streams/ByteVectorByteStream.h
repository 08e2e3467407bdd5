// A stream over bytes of its own. Every read makes exactly one write, of 0 bytes too.
#pragma once

#include <cstddef>
#include <limits>
#include <vector>

#include "transport/export.h"
#include "transport/streams/ByteStream.h"

namespace parallel::spf::transport {

class PARALLEL_SPF_TRANSPORT_EXPORT ByteVectorByteStream final : public ByteStream {
 public:
  explicit ByteVectorByteStream(std::vector<std::byte> bytes);

  std::size_t read(ByteSink& sink, std::size_t nbytes = std::numeric_limits<std::size_t>::max()) override;
  ~ByteVectorByteStream() override;

 private:
  std::vector<std::byte> bytes_;
  std::size_t consumed_ = 0;
};

}  // namespace parallel::spf::transport
