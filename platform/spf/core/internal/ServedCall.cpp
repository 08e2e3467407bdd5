#include "platform/spf/core/internal/ServedCall.h"

#include <utility>

#include "platform/errors/visibleText.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/LimitedInlet.h"

namespace agent::spf::core::internal {

ServedCall::ServedCall(const Service& service, CallFacts facts, std::shared_ptr<ByteInlet> request, ReplyOutlet& reply,
                       CancelNotice& notice)
    : service_(service),
      facts_(std::move(facts)),
      outlet_(reply),
      notice_(notice),
      requestBuffer_(withinLimit(std::move(request))),
      replyBuffer_(reply, "reply of call " + errors::inQuotes(facts_.method)),
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
  const ByteLimit* const limit = service_.requestLimit(facts_.method);
  if (limit == nullptr || facts_.requestSize)
    return request;
  return std::make_shared<LimitedInlet>(std::move(request), nameOfRequest(), *limit);
}

void ServedCall::setReplySize(long size) {
  replyBuffer_.announce(size);
  outlet_.setSize(size);
}

std::exception_ptr ServedCall::serve() noexcept {
  try {
    service_.checkCall(facts_.method, facts_.peer, facts_.requestSize);
    (*service_.find(facts_.method))(*this);
    notice_.setCallback(nullptr);
    replyBuffer_.finish();
    return nullptr;
  } catch (...) {
    return std::current_exception();
  }
}

}  // namespace agent::spf::core::internal
