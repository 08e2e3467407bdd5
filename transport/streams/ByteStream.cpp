#include "transport/streams/ByteStream.h"

namespace parallel::spf::transport {

ByteStream::~ByteStream() = default;

}  // namespace parallel::spf::transport
