#include "transport/streams/FunctionalByteSink.h"

#include <utility>

namespace parallel::spf::transport {

FunctionalByteSink::FunctionalByteSink(Callback callback) : callback_(std::move(callback)) {}

FunctionalByteSink::~FunctionalByteSink() = default;

void FunctionalByteSink::write(const std::byte* data, std::size_t nbytes) {
  callback_(data, nbytes);
}

}  // namespace parallel::spf::transport
