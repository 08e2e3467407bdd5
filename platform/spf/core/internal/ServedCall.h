// One call as its handler sees it, over the pipes of a transport.
#pragma once

#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

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
};

// What a transport knows of a call before it is served.
struct CallFacts {
  std::string method;
  std::string peer;
  std::optional<long> requestSize;
};

class ServedCall : public ServerCall {
 public:
  // Ownership: borrows the service, the outlet and the notice.
  ServedCall(const Service& service, CallFacts facts, std::shared_ptr<ByteInlet> request, ReplyOutlet& reply,
             CancelNotice& notice);
  ~ServedCall() override;

  const std::string& method() const noexcept override { return facts_.method; }
  const std::string& peer() const noexcept override { return facts_.peer; }
  std::optional<long> requestSize() const noexcept override { return facts_.requestSize; }
  void setReplySize(long size) override;
  bool isCancelled() const noexcept override { return notice_.isCancelled(); }
  void onCancel(std::function<void()> callback) override { notice_.setCallback(std::move(callback)); }
  std::uint64_t requestBytes() const noexcept override { return requestBuffer_.taken(); }
  std::uint64_t replyBytes() const noexcept override { return replyBuffer_.written(); }
  std::istream& request() override { return request_; }
  std::ostream& reply() override { return reply_; }

  // Runs the handler of the method and ends the reply. Returns the error that the reply must end with, null for none.
  std::exception_ptr serve() noexcept;

 private:
  std::string nameOfRequest() const { return "request of call " + errors::inQuotes(facts_.method); }
  std::shared_ptr<ByteInlet> withinLimit(std::shared_ptr<ByteInlet> request) const;

  const Service& service_;
  CallFacts facts_;
  ReplyOutlet& outlet_;
  CancelNotice& notice_;
  InputStreambuf requestBuffer_;
  OutputStreambuf replyBuffer_;
  std::istream request_;
  std::ostream reply_;
};

}  // namespace agent::spf::core::internal
