#include "platform/spf/core/internal/ServedCall.h"

#include <utility>

#include "platform/spf/core/errors.h"

namespace agent::spf::core::internal {

ServedCall::ServedCall(std::string method, std::optional<long> requestSize, std::shared_ptr<ByteInlet> request,
                       ReplyOutlet& reply, CancelNotice& notice)
    : method_(std::move(method)),
      requestSize_(requestSize),
      outlet_(reply),
      notice_(notice),
      requestBuffer_(std::move(request)),
      replyBuffer_(reply, "reply of call \"" + method_ + "\""),
      request_(&requestBuffer_),
      reply_(&replyBuffer_) {
  request_.exceptions(std::ios::badbit);
  reply_.exceptions(std::ios::badbit);
}

// The handler's callback may use what ended with the handler: from here on it is not run.
ServedCall::~ServedCall() {
  notice_.setCallback(nullptr);
}

void ServedCall::setReplySize(long size) {
  replyBuffer_.announce(size);
  outlet_.setSize(size);
}

std::exception_ptr ServedCall::serve(const Service& service) noexcept {
  try {
    const Service::Handler* handler = service.find(method_);
    if (handler == nullptr)
      throw FrameworkError(service.unknownMethodText(method_));
    (*handler)(*this);
    notice_.setCallback(nullptr);
    replyBuffer_.finish();
    return nullptr;
  } catch (...) {
    return std::current_exception();
  }
}

}  // namespace agent::spf::core::internal
