// An istream of the service framework as a ByteStream that the user can interrupt.
//
// Between two chunks of 16384 bytes a thread that may service the host's interrupts asks for one; a pending one leaves
// read() as the host's interrupt exception, and what was pushed by then stays with the sink.
// The trap: an istream that fails looks like one that ended, unless its exception mask makes it throw.
// Ownership: shares the istream.
// Threads:   one at a time.
#pragma once

#include <cstddef>
#include <istream>
#include <limits>
#include <memory>

#include "transport/export.h"
#include "transport/streams/ByteStream.h"

namespace parallel::spf::transport {

class PARALLEL_SPF_TRANSPORT_EXPORT SPFByteStreamAdaptor final : public ByteStream {
 public:
  explicit SPFByteStreamAdaptor(std::shared_ptr<std::istream> input);

  std::size_t read(ByteSink& sink, std::size_t nbytes = std::numeric_limits<std::size_t>::max()) override;
  ~SPFByteStreamAdaptor() override;

 private:
  std::shared_ptr<std::istream> input_;
};

}  // namespace parallel::spf::transport
