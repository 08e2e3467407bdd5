// A call whose reply may be deferred: it goes on where the test says so.
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <utility>

#include "scheduler/testing/FakeServerCall.h"

namespace parallel::scheduler::methods::testing {

using agent::spf::core::ServerCall;

// Goes on where the handler has returned, on the thread of the test.
class WaitingCall : public scheduler::testing::FakeServerCall {
 public:
  using FakeServerCall::FakeServerCall;

  std::shared_ptr<agent::spf::core::DeferredReply> defer() override {
    auto promise = std::make_shared<std::promise<Rest>>();
    rest_ = promise->get_future();
    return std::make_shared<Deferred>(std::move(promise));
  }
  // Waits until it is resumed, as often as it is deferred, and runs what is left of it.
  void goOn() {
    while (rest_.valid()) {
      std::future<Rest> rest = std::move(rest_);
      rest.get()(*this);
    }
  }

 private:
  using Rest = std::function<void(ServerCall&)>;
  class Deferred : public agent::spf::core::DeferredReply {
   public:
    explicit Deferred(std::shared_ptr<std::promise<Rest>> promise) : promise_(std::move(promise)) {}
    void resume(Rest rest) override { promise_->set_value(std::move(rest)); }

   private:
    std::shared_ptr<std::promise<Rest>> promise_;
  };

  std::future<Rest> rest_;
};

}  // namespace parallel::scheduler::methods::testing
