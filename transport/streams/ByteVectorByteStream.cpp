#include "transport/streams/ByteVectorByteStream.h"

#include <algorithm>
#include <utility>

namespace parallel::spf::transport {

ByteVectorByteStream::ByteVectorByteStream(std::vector<std::byte> bytes) : bytes_(std::move(bytes)) {}

ByteVectorByteStream::~ByteVectorByteStream() = default;

std::size_t ByteVectorByteStream::read(ByteSink& sink, std::size_t nbytes) {
  const std::size_t delivered = std::min(nbytes, bytes_.size() - consumed_);
  sink.write(bytes_.data() + consumed_, delivered);
  consumed_ += delivered;
  return delivered;
}

}  // namespace parallel::spf::transport
