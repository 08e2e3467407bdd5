#include "transport/streams/BlockedDataByteSink.h"

#include <boost/numeric/conversion/cast.hpp>

#include "platform/logging/currentExceptionText.h"
#include "transport/getLogger.h"
#include "transport/streams/blockFormat.h"

namespace parallel::spf::transport {

using block_format::kMaxBlockBytes;

BlockedDataByteSink::BlockedDataByteSink(ByteSink& sink) : sink_(sink) {
  buffer_.reserve(kMaxBlockBytes);
}

BlockedDataByteSink::~BlockedDataByteSink() {
  if (closed_)
    return;
  FOUNDATION_LOG(getLogger(), 8) << "BlockedDataByteSink not closed manually. Closing on destruction.";
  closeLoggingErrors();
}

void BlockedDataByteSink::closeLoggingErrors() noexcept {
  try {
    close();
  } catch (...) {
    FOUNDATION_LOG(getLogger(), 256) << "Error thrown closing BlockedDataByteSink.";
    FOUNDATION_LOG(getLogger(), 16) << "Exception caught: " << logging::currentExceptionText();
  }
}

void BlockedDataByteSink::write(const std::byte* data, std::size_t nbytes) {
  if (!buffer_.empty()) {
    const std::size_t room = block_format::roomInBlock(buffer_.size());
    if (room > nbytes)
      return append(data, nbytes);
    writeHeader(kMaxBlockBytes);
    sink_.write(buffer_.data(), buffer_.size());
    buffer_.clear();
    sink_.write(data, room);
    data += room;
    nbytes -= room;
  }
  for (; nbytes >= kMaxBlockBytes; data += kMaxBlockBytes, nbytes -= kMaxBlockBytes) {
    writeHeader(kMaxBlockBytes);
    sink_.write(data, kMaxBlockBytes);
  }
  append(data, nbytes);
}

void BlockedDataByteSink::close() {
  if (closed_)
    return;
  if (!buffer_.empty()) {
    writeHeader(boost::numeric_cast<std::int16_t>(buffer_.size()));
    sink_.write(buffer_.data(), buffer_.size());
  }
  writeHeader(block_format::kEndMarker);
  closed_ = true;
}

void BlockedDataByteSink::writeHeader(std::int16_t value) {
  const block_format::Header header = block_format::encodeHeader(value);
  sink_.write(header.data(), header.size());
}

void BlockedDataByteSink::append(const std::byte* data, std::size_t nbytes) {
  buffer_.insert(buffer_.end(), data, data + nbytes);
}

}  // namespace parallel::spf::transport
