#include "platform/spf/core/internal/ServedCall.h"

#include <stdexcept>
#include <utility>

#include "platform/errors/visibleText.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/LimitedInlet.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::core::internal {

namespace {

using parallel::threads::MutexLock;

void throwGivenUp(ServerCall& /*call*/) {
  throw Terminated("The call was given up by its client, or the connection to it was lost.");
}

void throwForgotten(ServerCall& call) {
  throw FrameworkError("The service let go of call " + errors::inQuotes(call.method()) + " without an answer.");
}

}  // namespace

// Where a call waits between its handler and what resumes it. Whichever of the two comes last lets it go on.
class ServedCall::Deferral final : public DeferredReply {
 public:
  ~Deferral() override { resume(throwForgotten); }

  // The handler has returned.
  void park(std::shared_ptr<ServedCall> call) {
    std::function<void(ServerCall&)> rest;
    {
      const MutexLock lock(mutex_);
      if (!resumed_) {
        parked_ = std::move(call);
        return;
      }
      rest = std::move(rest_);
    }
    call->goOn(std::move(rest));
  }

  void resume(std::function<void(ServerCall&)> rest) override {
    std::shared_ptr<ServedCall> call;
    {
      const MutexLock lock(mutex_);
      if (std::exchange(resumed_, true))
        return;
      if (parked_ == nullptr) {
        rest_ = std::move(rest);
        return;
      }
      call = std::move(parked_);
    }
    call->goOn(std::move(rest));
  }

 private:
  parallel::threads::Mutex mutex_;
  bool resumed_ ZKS_GUARDED_BY(mutex_) = false;
  std::function<void(ServerCall&)> rest_ ZKS_GUARDED_BY(mutex_);  // when it came before the handler had returned
  std::shared_ptr<ServedCall> parked_ ZKS_GUARDED_BY(mutex_);     // once the handler has returned
};

ServedCall::ServedCall(const Service& service, CallFacts facts, std::shared_ptr<ByteInlet> request, ReplyOutlet& reply,
                       CancelNotice& notice, Hooks hooks)
    : service_(service),
      facts_(std::move(facts)),
      outlet_(reply),
      notice_(notice),
      hooks_(std::move(hooks)),
      requestBuffer_(withinLimit(std::move(request))),
      replyBuffer_(reply, "reply of call " + errors::inQuotes(facts_.method)),
      request_(&requestBuffer_),
      reply_(&replyBuffer_) {
  request_.exceptions(std::ios::badbit);
  reply_.exceptions(std::ios::badbit);
}

ServedCall::~ServedCall() = default;

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

void ServedCall::notify(std::string_view text) {
  if (text.size() > kMostNoticeBytes)
    throw std::invalid_argument("A notice of " + std::to_string(text.size()) + " bytes is too long.");
  outlet_.notify(text);
}

std::shared_ptr<DeferredReply> ServedCall::defer() {
  auto deferral = std::make_shared<Deferral>();
  notice_.setFollowUp([watched = std::weak_ptr<Deferral>(deferral)] {
    if (const auto found = watched.lock())
      found->resume(throwGivenUp);
  });
  deferral_ = deferral;
  return deferral;
}

void ServedCall::serve() noexcept {
  run([this](ServerCall& call) {
    service_.checkCall(facts_.method, facts_.peer, facts_.requestSize);
    (*service_.find(facts_.method))(call);
  });
}

void ServedCall::run(const std::function<void(ServerCall&)>& handler) noexcept {
  try {
    handler(*this);
    if (const auto deferral = std::exchange(deferral_, nullptr))
      return deferral->park(shared_from_this());
    notice_.setCallback(nullptr);
    replyBuffer_.finish();
    end(nullptr);
  } catch (...) {
    end(std::current_exception());
  }
}

void ServedCall::goOn(std::function<void(ServerCall&)> rest) noexcept {
  try {
    hooks_.runInLine([self = shared_from_this(), rest = std::move(rest)] {
      self->run(self->isCancelled() ? std::function<void(ServerCall&)>(throwGivenUp) : rest);
    });
  } catch (...) {  // no thread to be had, or no memory
    end(std::current_exception());
  }
}

// The handler's callback may use what ended with the handler: from here on it is not run.
void ServedCall::end(const std::exception_ptr& error) noexcept {
  notice_.setCallback(nullptr);
  notice_.setFollowUp(nullptr);
  tellObservers(error);
  hooks_.done(error);
}

void ServedCall::tellObservers(const std::exception_ptr& error) noexcept {
  for (const auto& observer : endObservers_) {
    try {
      observer(error);
    } catch (...) {  // NOLINT(bugprone-empty-catch): an observer's own failure has nobody to go to
    }
  }
  endObservers_.clear();  // they may hold what ends with the call
}

}  // namespace agent::spf::core::internal
