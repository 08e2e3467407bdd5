#include "transport/streams/ByteSink.h"

namespace parallel::spf::transport {

ByteSink::~ByteSink() = default;

}  // namespace parallel::spf::transport
