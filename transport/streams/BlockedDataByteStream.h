// The data of one framed item, read off a stream that may carry more behind it. Format: docs/framing.md.
//
// Reads nothing before the first read(), and nothing past the item's end marker: the next reader of the same source
// finds the next item there. A read goes on across blocks until it has what was asked or the item ends.
// Ownership: shares the source; those who share it take turns.
// Threads:   one at a time.
// Errors:    a source that ends before the end marker throws std::runtime_error at the next header; a header below -1
//            throws Boost's negative overflow; what the sink throws passes through.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>

#include "transport/export.h"
#include "transport/streams/BoundedByteStream.h"
#include "transport/streams/ByteStream.h"

namespace parallel::spf::transport {

class PARALLEL_SPF_TRANSPORT_EXPORT BlockedDataByteStream final : public ByteStream {
 public:
  explicit BlockedDataByteStream(std::shared_ptr<ByteStream> source);
  BlockedDataByteStream(const BlockedDataByteStream&) = delete;
  BlockedDataByteStream& operator=(const BlockedDataByteStream&) = delete;

  std::size_t read(ByteSink& sink, std::size_t nbytes = std::numeric_limits<std::size_t>::max()) override;
  ~BlockedDataByteStream() override;

 private:
  std::int16_t readNonEmptyHeader();

  std::shared_ptr<ByteStream> source_;
  BoundedByteStream currentBlock_;
  bool finished_ = false;
};

}  // namespace parallel::spf::transport
