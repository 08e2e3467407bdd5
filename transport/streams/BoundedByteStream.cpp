#include "transport/streams/BoundedByteStream.h"

#include <algorithm>
#include <utility>

namespace parallel::spf::transport {

BoundedByteStream::BoundedByteStream(std::shared_ptr<ByteStream> source, std::size_t limit)
    : source_(std::move(source)), limit_(limit) {}

BoundedByteStream::~BoundedByteStream() = default;

std::size_t BoundedByteStream::read(ByteSink& sink, std::size_t nbytes) {
  const std::size_t delivered = source_->read(sink, std::min(nbytes, limit_ - consumed_));
  consumed_ += delivered;
  return delivered;
}

}  // namespace parallel::spf::transport
