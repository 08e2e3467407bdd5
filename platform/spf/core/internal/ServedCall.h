// One call as its handler sees it, over the pipes of a transport.
#pragma once

#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

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

class ServedCall : public ServerCall {
 public:
  // Ownership: borrows the service, the outlet and the notice.
  ServedCall(const Service& service, std::string method, std::optional<long> requestSize,
             std::shared_ptr<ByteInlet> request, ReplyOutlet& reply, CancelNotice& notice);
  ~ServedCall() override;

  const std::string& method() const noexcept override { return method_; }
  std::optional<long> requestSize() const noexcept override { return requestSize_; }
  void setReplySize(long size) override;
  bool isCancelled() const noexcept override { return notice_.isCancelled(); }
  void onCancel(std::function<void()> callback) override { notice_.setCallback(std::move(callback)); }
  std::istream& request() override { return request_; }
  std::ostream& reply() override { return reply_; }

  // Runs the handler of the method and ends the reply. Returns the error that the reply must end with, null for none.
  std::exception_ptr serve() noexcept;

 private:
  std::string nameOfRequest() const { return "request of call \"" + method_ + "\""; }
  std::shared_ptr<ByteInlet> withinLimit(std::shared_ptr<ByteInlet> request) const;

  const Service& service_;
  std::string method_;
  std::optional<long> requestSize_;
  ReplyOutlet& outlet_;
  CancelNotice& notice_;
  InputStreambuf requestBuffer_;
  OutputStreambuf replyBuffer_;
  std::istream request_;
  std::ostream reply_;
};

}  // namespace agent::spf::core::internal
