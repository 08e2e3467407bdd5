#include "transport/streams/BlockedDataByteStream.h"

#include <boost/numeric/conversion/cast.hpp>
#include <utility>

#include "transport/streams/blockFormat.h"
#include "transport/streams/readBigEndianInt16.h"

namespace parallel::spf::transport {

BlockedDataByteStream::BlockedDataByteStream(std::shared_ptr<ByteStream> source)
    : source_(std::move(source)), currentBlock_(source_, 0) {}

BlockedDataByteStream::~BlockedDataByteStream() = default;

std::size_t BlockedDataByteStream::read(ByteSink& sink, std::size_t nbytes) {
  if (finished_ || nbytes == 0)
    return 0;
  std::size_t total = 0;
  while (true) {
    const std::size_t delivered = currentBlock_.read(sink, nbytes);
    total += delivered;
    if (delivered == nbytes)
      return total;
    nbytes -= delivered;
    const std::int16_t header = readNonEmptyHeader();
    if (header == block_format::kEndMarker) {
      finished_ = true;
      return total;
    }
    currentBlock_ = BoundedByteStream(source_, boost::numeric_cast<std::size_t>(header));
  }
}

// Empty blocks carry nothing. Our writer makes none, but a reader must accept them.
std::int16_t BlockedDataByteStream::readNonEmptyHeader() {
  std::int16_t header = 0;
  while (header == 0)
    header = readBigEndianInt16(*source_);
  return header;
}

}  // namespace parallel::spf::transport
