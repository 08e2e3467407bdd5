// Cuts what is written into length-prefixed blocks, so that a reader finds the end of an item whose length nobody knew
// beforehand. Format: docs/framing.md.
//
// Only full blocks leave before close(). Data goes from the caller's memory straight to the sink, except for the tail
// that does not fill a block.
// Ownership: borrows the sink, which must outlive this one.
// Threads:   one at a time.
// Errors:    what the sink throws passes through; the item is then broken on the wire.
// Closing:   close() writes the pending block and the end marker, once. A forgotten close is made good by the
//            destructor, which logs it and never throws. What is written after close() lands behind the end marker.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "transport/export.h"
#include "transport/streams/ByteSink.h"

namespace parallel::spf::transport {

class PARALLEL_SPF_TRANSPORT_EXPORT BlockedDataByteSink final : public ByteSink {
 public:
  explicit BlockedDataByteSink(ByteSink& sink);

  void write(const std::byte* data, std::size_t nbytes) override;
  ~BlockedDataByteSink() override;

  void close();

 private:
  void writeHeader(std::int16_t value);
  void append(const std::byte* data, std::size_t nbytes);
  void closeLoggingErrors() noexcept;

  ByteSink& sink_;
  std::vector<std::byte> buffer_;  // of the block that is not full yet
  bool closed_ = false;
};

}  // namespace parallel::spf::transport
