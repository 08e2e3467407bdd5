#include "platform/spf/core/internal/ServedCall.h"

#include <utility>

#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/LimitedInlet.h"

namespace agent::spf::core::internal {

ServedCall::ServedCall(const Service& service, std::string method, std::optional<long> requestSize,
                       std::shared_ptr<ByteInlet> request, ReplyOutlet& reply, CancelNotice& notice)
    : service_(service),
      method_(std::move(method)),
      requestSize_(requestSize),
      outlet_(reply),
      notice_(notice),
      requestBuffer_(withinLimit(std::move(request))),
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

// An announced size is checked before the handler is called, and held to by the transport.
std::shared_ptr<ByteInlet> ServedCall::withinLimit(std::shared_ptr<ByteInlet> request) const {
  const ByteLimit* const limit = service_.requestLimit(method_);
  if (limit == nullptr || requestSize_)
    return request;
  return std::make_shared<LimitedInlet>(std::move(request), nameOfRequest(), *limit);
}

void ServedCall::setReplySize(long size) {
  replyBuffer_.announce(size);
  outlet_.setSize(size);
}

std::exception_ptr ServedCall::serve() noexcept {
  try {
    const Service::Handler* handler = service_.find(method_);
    if (handler == nullptr)
      throw FrameworkError(service_.unknownMethodText(method_));
    if (const ByteLimit* const limit = service_.requestLimit(method_); limit != nullptr && requestSize_)
      checkLimit(*limit, nameOfRequest(), *requestSize_);
    (*handler)(*this);
    notice_.setCallback(nullptr);
    replyBuffer_.finish();
    return nullptr;
  } catch (...) {
    return std::current_exception();
  }
}

}  // namespace agent::spf::core::internal
