// A call without a framework: the request is a string, the reply is collected, the test cancels.
#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/spf/core/Service.h"
#include "platform/threads/Mutex.h"

namespace parallel::scheduler::testing {

class FakeServerCall : public agent::spf::core::ServerCall {
 public:
  explicit FakeServerCall(std::string request, std::string method = "method")
      : method_(std::move(method)),
        requestSize_(static_cast<long>(request.size())),
        sentBytes_(request.size()),
        request_(std::move(request)) {
    request_.exceptions(std::ios::badbit);
    reply_.exceptions(std::ios::badbit);
  }

  const std::string& method() const noexcept override { return method_; }
  const std::string& peer() const noexcept override { return peer_; }
  const agent::spf::core::PeerIdentity& identity() const noexcept override { return identity_; }
  std::optional<long> requestSize() const noexcept override { return requestSize_; }
  void setReplySize(long size) override { replySize_ = size; }
  void notify(std::string_view text) override { notices_.emplace_back(text); }
  bool isCancelled() const noexcept override { return cancelled_; }
  void onCancel(std::function<void()> callback) override {
    const threads::MutexLock lock(mutex_);
    callback_ = std::move(callback);
    if (cancelled_ && callback_)
      callback_();
  }
  std::shared_ptr<agent::spf::core::DeferredReply> defer() override { return std::make_shared<Deferred>(*this); }
  void onEnd(std::function<void(const std::exception_ptr&)> observer) override {
    endObservers_.push_back(std::move(observer));
  }
  std::istream& request() override { return request_; }
  std::ostream& reply() override { return reply_; }
  std::uint64_t requestBytes() const noexcept override { return sentBytes_; }
  std::uint64_t replyBytes() const noexcept override {
    return static_cast<std::uint64_t>(reply_.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::out));
  }

  void cancel() {
    const threads::MutexLock lock(mutex_);
    cancelled_ = true;
    if (callback_)
      callback_();
  }
  // The reply has ended.
  void end(const std::exception_ptr& error = nullptr) {
    for (const auto& observer : std::exchange(endObservers_, {}))
      observer(error);
  }
  void setRole(agent::spf::core::PeerRole role) { identity_.role = role; }
  void forgetRequestSize() { requestSize_.reset(); }
  void setRequestSize(long size) { requestSize_ = size; }
  std::optional<long> replySize() const { return replySize_; }
  const std::vector<std::string>& notices() const { return notices_; }
  std::string replyText() const { return reply_.str(); }

 private:
  // Goes on at once, on the thread that resumes it.
  class Deferred : public agent::spf::core::DeferredReply {
   public:
    explicit Deferred(FakeServerCall& call) : call_(call) {}
    void resume(std::function<void(agent::spf::core::ServerCall&)> rest) override { rest(call_); }

   private:
    FakeServerCall& call_;
  };

  std::string method_;
  std::string peer_ = "somewhere:1";
  agent::spf::core::PeerIdentity identity_{agent::spf::core::PeerRole::client, "somebody"};
  std::optional<long> requestSize_;
  std::optional<long> replySize_;
  std::uint64_t sentBytes_;
  std::vector<std::string> notices_;
  std::istringstream request_;
  std::ostringstream reply_;
  threads::Mutex mutex_;
  std::atomic<bool> cancelled_{false};
  std::vector<std::function<void(const std::exception_ptr&)>> endObservers_;
  std::function<void()> callback_ ZKS_GUARDED_BY(mutex_);
};

}  // namespace parallel::scheduler::testing
