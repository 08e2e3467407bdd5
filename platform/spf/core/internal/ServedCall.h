// One call as its handler sees it, over the pipes of a transport.
#pragma once

#include <functional>
#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/errors/visibleText.h"
#include "platform/spf/core/Service.h"
#include "platform/spf/core/internal/ByteInlet.h"
#include "platform/spf/core/internal/ByteOutlet.h"
#include "platform/spf/core/internal/CancelNotice.h"
#include "platform/spf/core/internal/InputStreambuf.h"
#include "platform/spf/core/internal/OutputStreambuf.h"

namespace agent::spf::core::internal {

// The reply's side of a transport: its head carries the size, so the size must be known before the first byte.
class ReplyOutlet : public ByteOutlet {
 public:
  virtual void setSize(long size) = 0;
  // A notice for the caller, unless the reply has begun.
  virtual void notify(std::string_view text) = 0;
};

// What a transport knows of a call before it is served.
struct CallFacts {
  std::string method;
  std::string peer;
  PeerIdentity identity;
  std::optional<long> requestSize;
};

// Threads: one at a time, in the order in which the handler and what resumes it run.
class ServedCall : public ServerCall, public std::enable_shared_from_this<ServedCall> {
 public:
  // What the transport does for the call.
  struct Hooks {
    // Runs a task where handlers run, when its turn comes. May throw.
    std::function<void(std::function<void()>)> runInLine;
    // Nothing of the call runs any more: its reply has ended, or must end with this error. Called once; does not throw.
    std::function<void(const std::exception_ptr&)> done;
  };

  // Ownership: borrows the service, the outlet and the notice; `hooks` may hold what owns them.
  ServedCall(const Service& service, CallFacts facts, std::shared_ptr<ByteInlet> request, ReplyOutlet& reply,
             CancelNotice& notice, Hooks hooks);
  ~ServedCall() override;

  const std::string& method() const noexcept override { return facts_.method; }
  const std::string& peer() const noexcept override { return facts_.peer; }
  const PeerIdentity& identity() const noexcept override { return facts_.identity; }
  std::optional<long> requestSize() const noexcept override { return facts_.requestSize; }
  void setReplySize(long size) override;
  void notify(std::string_view text) override;
  bool isCancelled() const noexcept override { return notice_.isCancelled(); }
  void onCancel(std::function<void()> callback) override { notice_.setCallback(std::move(callback)); }
  std::shared_ptr<DeferredReply> defer() override;
  void onEnd(std::function<void(const std::exception_ptr&)> observer) override {
    endObservers_.push_back(std::move(observer));
  }
  std::uint64_t requestBytes() const noexcept override { return requestBuffer_.taken(); }
  std::uint64_t replyBytes() const noexcept override { return replyBuffer_.written(); }
  std::istream& request() override { return request_; }
  std::ostream& reply() override { return reply_; }

  // Runs the handler of the method. The call is done when this returns, unless the handler has deferred its reply.
  void serve() noexcept;

 private:
  class Deferral;

  void run(const std::function<void(ServerCall&)>& handler) noexcept;
  void goOn(std::function<void(ServerCall&)> rest) noexcept;
  void end(const std::exception_ptr& error) noexcept;
  void tellObservers(const std::exception_ptr& error) noexcept;
  std::string nameOfRequest() const { return "request of call " + errors::inQuotes(facts_.method); }
  std::shared_ptr<ByteInlet> withinLimit(std::shared_ptr<ByteInlet> request) const;

  const Service& service_;
  CallFacts facts_;
  ReplyOutlet& outlet_;
  CancelNotice& notice_;
  const Hooks hooks_;
  std::shared_ptr<Deferral> deferral_;  // made by the handler that runs now
  std::vector<std::function<void(const std::exception_ptr&)>> endObservers_;
  InputStreambuf requestBuffer_;
  OutputStreambuf replyBuffer_;
  std::istream request_;
  std::ostream reply_;
};

}  // namespace agent::spf::core::internal
