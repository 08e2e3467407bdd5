#include "platform/spf/core/internal/CallRequest.h"

#include <ostream>

#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/OutputStreambuf.h"

namespace agent::spf::core::internal {

CallRequest::CallRequest(const std::string& method, const GenericPayload& payload, int flags) : method_(method) {
  if (flags != 0)
    throw FrameworkError("Call \"" + method + "\" has the reserved flags " + std::to_string(flags) + ".");
  if (payload.size() == 1 && payload.holds<ExportedDataSource>(0))
    source_ = payload.getValueAsPointer<ExportedDataSource>(0);
  else if (payload.size() == 1 && payload.holds<std::string>(0))
    bytes_ = payload.getValueAsPointer<std::string>(0);
  else
    throw FrameworkError("The request of call \"" + method + "\" is neither one data source nor one string.");
  if (size() < 0)
    throw FrameworkError("The request of call \"" + method + "\" has a size of " + std::to_string(size()) + " bytes.");
}

long CallRequest::size() const noexcept {
  return isBytes() ? static_cast<long>(bytes_->size()) : source_->size();
}

void CallRequest::writeTo(ByteOutlet& outlet) const {
  OutputStreambuf buffer(outlet, "request of call \"" + method_ + "\"");
  buffer.announce(size());
  if (isBytes()) {
    buffer.sputn(bytes_->data(), size());
  } else {
    if (source_->writer() == nullptr || !*source_->writer())
      throw FrameworkError("The request of call \"" + method_ + "\" has no writer.");
    std::ostream stream(&buffer);
    stream.exceptions(std::ios::badbit);
    (*source_->writer())(stream);
  }
  buffer.finish();
}

}  // namespace agent::spf::core::internal
